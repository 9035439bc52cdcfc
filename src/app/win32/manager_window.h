// The manager window: tagent.exe started without arguments. A dialog of
// the standard class titled with the application title, which the agent
// finds to tell it of changes (message 1028) and to close it.
#pragma once

// Runs the window until it is closed; tagent's exit status.
int run_manager_window();
