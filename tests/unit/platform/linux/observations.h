// What a channel reports, in words.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "host/host.h"

namespace linktest {

/// The records of a batch as "identifier argument argument", one text each.
std::vector<std::string> observationsOf(const std::vector<char>& batch);

/// Reads until the channel does not poll readable any more.
std::vector<std::string> readAll(platform::Channel& channel, std::size_t capacity = 131072);

/// Waits until the channel has reported `count` observations; those that came before the deadline.
std::vector<std::string> readUntil(platform::Channel& channel, std::size_t count,
                                   std::chrono::seconds deadline = std::chrono::seconds(20));

bool pollsReadable(const platform::Channel& channel);

}  // namespace linktest
