// Names of threads, as diagnostics and process listings show them.
#pragma once

/// Names the calling thread. The kernel's listing shows the first 15 characters
/// (pthread_setname_np(3)); VThreadBase_CurName returns up to 63.
void VThreadBase_SetName(const char* name);

/// The calling thread's name, valid until the thread ends or is renamed: as set, else "main" on
/// the process's first thread and "thread-N" with the kernel's thread id on others.
const char* VThreadBase_CurName();
