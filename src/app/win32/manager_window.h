// The manager window: tagent.exe started without arguments. A dialog of
// the standard class titled with the application title, which the agent
// finds to tell it of changes (message 1028) and to close it.
#pragma once

// The caption of the manager's own message boxes: not the window's title,
// so that the agent never takes one of them for the manager.
constexpr wchar_t MANAGER_BOX_CAPTION[] = L"Tarnwell Key Agent Manager";

// Runs the window until it is closed; tagent's exit status.
int run_manager_window();
