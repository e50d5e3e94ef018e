// Files that a program puts into the run directory.
#pragma once

/// Lets the group that `access.group` of platform.conf names use a socket of the caller's, which is
/// otherwise its owner's alone (mode 0660 or 0600). Trouble leaves the owner alone with it and is
/// mentioned in the system log, which is no reason to stop. Any thread.
void RunFile_ShareSocket(const char* path);
