#include "app/win32/resource_texts.h"

#include <atomic>

#include "app/program_texts.h"
#include "platform/platform.h"
#include "platform/win32/text_conversion.h"

namespace {

std::atomic<HMODULE> library{nullptr};

}  // namespace

HMODULE resource_library_load()
{
    if (!library) {
        std::wstring path = utf8_to_wide(platform_executable_dir() + "tagent.dll");
        library = LoadLibraryExW(path.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
    }
    return library;
}

HMODULE resource_library() { return library; }

void resource_library_unload()
{
    if (HMODULE loaded = library.exchange(nullptr))
        FreeLibrary(loaded);
}

std::wstring resource_text(int id)
{
    const wchar_t *text = nullptr;
    // With a zero size LoadStringW hands out a pointer into the resource.
    int length = library ? LoadStringW(library, static_cast<UINT>(id), reinterpret_cast<LPWSTR>(&text), 0) : 0;
    if (length > 0)
        return std::wstring(text, static_cast<size_t>(length));
    return utf8_to_wide(program_text(id));
}
