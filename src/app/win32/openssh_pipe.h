// The OpenSSH agent pipe "\\.\pipe\openssh-ssh-agent", which Win32-OpenSSH
// ssh.exe, Git for Windows, VS Code and other OpenSSH-protocol clients open.
// It is always listening: instances wait for the next clients while each
// connected client is served on a thread of its own, with the exact-length
// framing of a Unix agent socket.
#pragma once

constexpr wchar_t OPENSSH_AGENT_PIPE[] = L"\\\\.\\pipe\\openssh-ssh-agent";

// Starts listening. When another program owns the name already, logs it in
// one line and does nothing more. Returns at once.
void openssh_pipe_start();
// Stops listening; the connections already made end with the agent's other
// client connections.
void openssh_pipe_stop();
