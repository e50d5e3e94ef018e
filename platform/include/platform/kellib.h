// The host observation library: the contexts through which observations reach the daemon.
//
// Contexts are read by one thread at a time. The library hands out well-formed batches only;
// whatever is malformed, oversized or not allowed to its sender is dropped whole, counted, and
// logged at most once a minute per sender.
#pragma once

#include <cstddef>
#include <cstdint>

struct KelLib_Context;
using KelLib_Handle = KelLib_Context*;

/// Number of kernel contexts; they are numbered from 0.
inline constexpr std::uint32_t KELLIB_ASYNC_CONTEXTS = 24;
/// The batch that waits is not strictly smaller than the capacity offered; it still waits.
inline constexpr int KELLIB_ERR_BUFFER_TOO_SMALL = 27;

/// Opens kernel context `number` (0 to 23). Returns 0 and the handle, or a positive errno value.
int KelLib_AsyncContextOpen(std::uint32_t number, KelLib_Handle* handle);

/// Opens the context that host services connect to. Returns as KelLib_AsyncContextOpen.
int KelLib_UserContextOpen(std::uint32_t number, KelLib_Handle* handle);

/// Stores the descriptor to poll for input; it stays the library's. Returns 0, or EINVAL for a
/// null handle.
int KelLib_HandleToFd(KelLib_Handle handle, int* fd);

/// Stores the context's name, which lives as long as the handle. Returns 0 or EINVAL.
int KelLib_HandleToName(KelLib_Handle handle, const char** name);

/// Takes one batch of records from a context's or connection's descriptor without waiting.
/// Returns 0 with its length in bytes (0 where nothing that may pass was waiting),
/// KELLIB_ERR_BUFFER_TOO_SMALL where the batch is not smaller than `capacity` (it is kept for the
/// next read), or a positive errno value.
int KelLib_ReadFromFd(int fd, void* buffer, std::size_t capacity, std::size_t* length);

/// Drops the batch that waits first in the context, none behind it. Returns 0 or a positive errno.
int KelLib_Reset(KelLib_Handle handle);

/// Accepts a host service's connection. Returns 0 with a descriptor that KelLib_UserContextCloseCnx
/// closes, or a positive errno value.
int KelLib_UserContextNewCnx(KelLib_Handle user, int* fd);

/// Closes a connection. Returns 0, or a negative errno value (then nothing was closed).
int KelLib_UserContextCloseCnx(int fd);

/// Closes a context and releases its handle. Returns 0 or a positive errno value.
int KelLib_Close(KelLib_Handle handle);
