#!/bin/bash
# A pinentry for tests. It answers GETPIN with $PINENTRY_PIN (percent-escaped
# as the protocol wants), CONFIRM with OK when $PINENTRY_CONFIRM is "yes",
# and cancels GETPIN when $PINENTRY_CANCEL is 1. Every command it receives
# is appended to $PINENTRY_LOG when that is set.
echo "OK Pleased to meet you"
while IFS= read -r line; do
  [ -n "${PINENTRY_LOG:-}" ] && printf '%s\n' "$line" >> "$PINENTRY_LOG"
  case "$line" in
    GETPIN*)
      if [ "${PINENTRY_CANCEL:-0}" = 1 ]; then
        echo "ERR 83886179 Operation cancelled <Pinentry>"
      else
        pin=${PINENTRY_PIN:-}
        pin=${pin//%/%25}
        [ -n "$pin" ] && echo "D $pin"
        echo "OK"
      fi ;;
    CONFIRM*)
      if [ "${PINENTRY_CONFIRM:-no}" = yes ]; then echo "OK"; else echo "ERR 83886194 Not confirmed <Pinentry>"; fi ;;
    BYE*) echo "OK closing connection"; exit 0 ;;
    *) echo "OK" ;;
  esac
done
