// The border of a C-style interface, which no exception passes.
#pragma once

#include <exception>
#include <new>
#include <string>

#include "host/complaints.h"

namespace platform {

/// What a call returns in place of an exception: where memory is exhausted, and for any other.
template <typename Status>
struct InsteadOfThrowing {
  Status noMemory;
  Status failure;
};

/// Returns what `call` returns. Where it throws, a line about `interface` is logged, at most once a
/// minute, but not where memory is exhausted. Any thread.
template <typename Status, typename Call>
Status guarded(const char* interface, InsteadOfThrowing<Status> instead, const Call& call) {
  try {
    return call();
  } catch (const std::bad_alloc&) {
    return instead.noMemory;
  } catch (const std::exception& trouble) {
    logSparsely(interface, std::string(interface) + ": " + trouble.what());
    return instead.failure;
  }
}

}  // namespace platform
