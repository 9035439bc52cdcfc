#include "app/win32/help.h"

#include <windows.h>
#include <shellapi.h>

#include <string>

#include "platform/platform.h"
#include "platform/win32/text_conversion.h"

bool open_help_topic(int topic)
{
    // One page holds every topic, each under the heading "topic<number>";
    // a file opened through the shell cannot be given the anchor.
    (void)topic;
    std::wstring page = utf8_to_wide(platform_executable_dir() + HELP_PAGE_FILE);
    auto result = reinterpret_cast<INT_PTR>(
        ShellExecuteW(nullptr, L"open", page.c_str(), nullptr, nullptr, SW_SHOWNORMAL));
    return result > 32;
}
