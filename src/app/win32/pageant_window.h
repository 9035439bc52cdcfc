// The Pageant protocol, for PuTTY, WinSCP, FileZilla and other Pageant
// clients: a window of class "Pageant" titled "Pageant" on a thread of its
// own. A client writes one request into a file mapping and sends the
// mapping's name with WM_COPYDATA; the reply is written back into the same
// mapping.
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>

constexpr wchar_t PAGEANT_WINDOW_CLASS[] = L"Pageant";
constexpr wchar_t PAGEANT_WINDOW_TITLE[] = L"Pageant";
constexpr ULONG_PTR PAGEANT_COPYDATA_ID = 0x804e50ba;
// A request with its length prefix, and its reply, fit in this many bytes.
constexpr size_t PAGEANT_MAX_MESSAGE = 8192;

// Creates the window on its own thread. When a Pageant window exists already
// (Pageant itself, or another agent), logs it in one line and does nothing
// more. Returns once the window exists or has failed.
void pageant_window_start();
// Closes the window and ends its thread (bounded wait).
void pageant_window_stop();
