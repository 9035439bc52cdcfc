// The program's texts as the resource library holds them; the compiled-in
// table answers while the library is not loaded.
#pragma once

#include <windows.h>

#include <string>

// Loads "tagent.dll" from the programs' folder; null when it is missing.
HMODULE resource_library_load();
HMODULE resource_library();
void resource_library_unload();

std::wstring resource_text(int id);
