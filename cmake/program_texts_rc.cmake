# Writes the resource library's string table from the program's one table
# of texts: cmake -DHEADER=program_texts.h -DSOURCE=program_texts.cpp
# -DOUTPUT=strings.rc -P program_texts_rc.cmake
file(READ ${HEADER} header)
file(READ ${SOURCE} source)

# TEXT_NAME = number, from the enum.
string(REGEX MATCHALL "TEXT_[A-Z0-9_]+ = [0-9]+" numbers "${header}")
foreach(entry ${numbers})
  string(REGEX REPLACE "^(TEXT_[A-Z0-9_]+) = ([0-9]+)$" "\\1;\\2" pair "${entry}")
  list(GET pair 0 name)
  list(GET pair 1 number)
  set(number_of_${name} ${number})
endforeach()

# {TEXT_NAME, "text" "more text"}: adjacent literals are joined.
string(REGEX MATCHALL "{TEXT_[A-Z0-9_]+,[ \t\r\n]*(\"([^\"\\\\]|\\\\.)*\"[ \t\r\n]*)+}" entries "${source}")
set(table "// Made at build time from src/app/program_texts.cpp.\nSTRINGTABLE\nBEGIN\n")
set(count 0)
foreach(entry ${entries})
  string(REGEX MATCH "TEXT_[A-Z0-9_]+" name "${entry}")
  if(NOT DEFINED number_of_${name})
    message(FATAL_ERROR "no number for ${name}")
  endif()
  string(REGEX REPLACE "^{TEXT_[A-Z0-9_]+,[ \t\r\n]*\"" "" text "${entry}")
  string(REGEX REPLACE "\"[ \t\r\n]*}$" "" text "${text}")
  string(REGEX REPLACE "\"[ \t\r\n]*\"" "" text "${text}")
  string(APPEND table "  ${number_of_${name}}, \"${text}\"\n")
  math(EXPR count "${count} + 1")
endforeach()
string(APPEND table "END\n")
list(LENGTH numbers expected)
if(NOT count EQUAL expected)
  message(FATAL_ERROR "${count} texts found for ${expected} text numbers")
endif()
file(WRITE ${OUTPUT}.new "${table}")
file(COPY_FILE ${OUTPUT}.new ${OUTPUT} ONLY_IF_DIFFERENT)
file(REMOVE ${OUTPUT}.new)
