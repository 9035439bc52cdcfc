// The agent's hidden window: clients find it by its class, ask it whether
// the agent is ready and ask it for pipes; the manager sends it settings.
#pragma once

#include <windows.h>

constexpr wchar_t AGENT_WINDOW_CLASS[] = L"Tarnwell_KeyAgent_HiddenWindow";
constexpr wchar_t AGENT_WINDOW_TITLE[] = L"Tarnwell Key Agent";

// The running agent's window, or null.
HWND find_agent_window();

// Registers the class; false on failure.
bool register_agent_window_class(HINSTANCE instance);
// Creates the hidden window (no styles, at 0,0, size 0,0, no parent).
HWND create_agent_window(HINSTANCE instance);
