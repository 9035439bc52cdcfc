// The local help page shipped beside the programs.
#pragma once

constexpr int HELP_TOPIC_MANAGER = 1000;
constexpr int HELP_TOPIC_DIALOGS = 1001;
constexpr char HELP_PAGE_FILE[] = "tarnwell-key-agent.html";

// Opens the help page; false when it cannot be opened.
bool open_help_topic(int topic);
