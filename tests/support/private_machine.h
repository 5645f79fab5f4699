// The test process's own view of the machine: a private mount namespace whose /dev has the usual nodes, and a
// /dev/log and a /dev/shm of its own. What is mounted or created there disappears with the process.
#pragma once

#include <string>

// Enters the namespace, before any thread is started. Ends the process with a message when that cannot be done.
void enterPrivateMachine();

// Gives the process a root directory of its own, in which it may create directories beside those of the machine.
// Before any thread is started.
void enterPrivateRoot();

// Puts an empty tmpfs over a directory of the private machine, for the rest of the process (size as
// mount(8) takes it, null for the default). The directory must exist.
void coverDirectory(const std::string &path, const char *size = nullptr);

// Puts a file with this content in the place of an existing file, for the rest of the process.
void coverFile(const std::string &path, const std::string &content);

// True on the emulated target, where the tests may use the real clock, console, modem lines and power switch.
bool onTarget();

// An empty directory on a tmpfs of the private machine. It replaces that of the last call.
std::string freshDirectory();
