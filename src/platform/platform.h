// The few operating-system services the portable core needs. One
// implementation per platform lives beside this header; nothing else in the
// core includes a platform header.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct LocalTime {
    unsigned year, month, day, hour, minute, second, millisecond;
};

LocalTime platform_local_time();

// Appends `data` to the file at `path` (created 0600 if missing) while holding
// an exclusive cross-process lock on it, so that writers of several processes
// never interleave. Returns false when the file cannot be opened or written.
bool platform_append_locked(const std::string &path, const std::string &data);

std::string platform_user_name();
std::string platform_host_name();

// Overwrites the file's contents with zeros, flushes them to disk and removes
// the file. Returns false when the file could not be removed (a missing file
// counts as destroyed).
bool platform_destroy_file(const std::string &path);

// Marks a finished file private (mode 0600 on POSIX, the hidden attribute on
// Windows) and flushes it, and on POSIX its folder, to disk.
bool platform_complete_file(const std::string &path);

// Renames `from` over `to` atomically and flushes the folder.
bool platform_replace_file(const std::string &from, const std::string &to);
// The same, and then overwrites the replaced file's contents with zeros, so
// that the old version is not left readable on disk.
bool platform_replace_file_destroying(const std::string &from, const std::string &to);

// Creates `path` for its owner only (emptying it if it exists), writes
// `data`, and flushes the file and its folder to disk. False on any failure.
bool platform_write_private_file(const std::string &path, const void *data, size_t size);

bool platform_remove_file(const std::string &path);

// Creates the folder for its owner only (0700), or restricts an existing one.
bool platform_make_private_folder(const std::string &path);
// The names of the plain files in a folder, sorted; empty when it cannot be read.
std::vector<std::string> platform_folder_files(const std::string &path);
bool platform_file_exists(const std::string &path);

// Folder of the running executable, with a trailing separator.
std::string platform_executable_dir();

// Dynamic libraries.
// File name of the crypto module library ("libtarnwell-pki.so", "pki.dll").
const char *platform_crypto_module_file();
void *platform_load_library(const std::string &path);
void *platform_library_symbol(void *library, const char *name);
std::string platform_library_error();

// Milliseconds since an arbitrary fixed point; used for connection identifiers.
uint64_t platform_tick_count();

// The calling thread's identifier, as the log lines show it.
uint32_t platform_thread_id();

// Keeps the calling thread on processor core `core`, or with -1 lets it run
// again on every core the process started with. False when the system
// refuses.
bool platform_bind_current_thread(int core);
// The core the calling thread runs on now; -1 when the system cannot tell.
int platform_current_core();

// `name` in `folder` (just `name` when the folder is empty).
std::string platform_join_path(const std::string &folder, const std::string &name);

// A policy setting by name (TARNWELL_FIPS, TARNWELL_DODPKI); nothing when it
// is not set.
std::optional<std::string> platform_policy_value(const char *name);

// True when the operating system itself demands FIPS mode.
bool platform_system_fips_mode();
