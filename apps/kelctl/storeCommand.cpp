// kelctl store: the objects that the configuration store keeps over restarts of the host.
#include <fmt/format.h>

#include <cerrno>

#include "commandLine.h"
#include "configstore/read.h"
#include "console.h"
#include "failure.h"
#include "host/files.h"
#include "json.h"

namespace kelctl {

namespace {

using platform::StoredObject;

void print(const std::string& text) {
  Output out;
  out.write(text);
  out.flush();
}

std::string pretty(const Json& json) {
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

Json valuesOf(const StoredObject& object) {
  Json values = Json::object();
  for (const auto& [key, value] : object.values) values[key] = value;
  return values;
}

void list(bool json) {
  const auto objects = platform::listStoredObjects();
  if (!objects.ok()) throw Failure("cannot read the configuration store: " + platform::reasonOf(objects.outcome));
  std::string text;
  Json all = Json::array();
  for (const StoredObject& object : objects.value) {
    text += fmt::format("{}  # {}, {}{}{}; {} value{}\n", printable(object.name), printable(object.component),
                        printable(object.product), object.instance.empty() ? "" : ", ", printable(object.instance),
                        object.values.size(), object.values.size() == 1 ? "" : "s");
    all.push_back({{"name", object.name},
                   {"component", object.component},
                   {"product", object.product},
                   {"instance", object.instance},
                   {"values", valuesOf(object)}});
  }
  print(json ? pretty(all) : text);
}

[[noreturn]] void failNamed(const std::string& name, const platform::Outcome& outcome, const char* what) {
  if (outcome.status == ENOENT) throw Failure(fmt::format("the configuration store has no object '{}'", name));
  throw Failure(fmt::format("cannot {} object '{}': {}", what, name, platform::reasonOf(outcome)));
}

void get(const std::string& name, const std::optional<std::string>& key, bool json) {
  const auto object = platform::readStoredObject(name);
  if (!object.ok()) failNamed(name, object.outcome, "read");
  if (key) {
    for (const auto& [its, value] : object.value.values) {
      if (its == *key) return print(json ? pretty(Json(value)) : printable(value) + "\n");
    }
    throw Failure(fmt::format("object '{}' has no value '{}'", name, *key));
  }
  if (json) return print(pretty(valuesOf(object.value)));
  std::string text;
  for (const auto& [its, value] : object.value.values) {
    text += fmt::format("{} = {}\n", printable(its), printable(value));
  }
  print(text);
}

void remove(const std::string& name) {
  const platform::Outcome outcome = platform::deleteStoredObject(name);
  if (!outcome.ok()) failNamed(name, outcome, "delete");
}

}  // namespace

int runStore(const Words& words) {
  bool json = false;
  std::string name;
  std::optional<std::string> key;
  CommandLine line("store", "Shows and deletes what the configuration store keeps over restarts of the host.");
  constexpr const char* kName = "the object's name, such as reboot_reason";
  CommandLine& lists = line.addSubcommand("list", "print the name of every object");
  lists.addFlag("--json", json, "print one JSON array of the objects with their values");
  CommandLine& gets = line.addSubcommand("get", "print an object's values in the order in which they were stored");
  gets.addWord("NAME", name, kName);
  gets.addWord("KEY", key, "print this value only");
  gets.addFlag("--json", json, "print JSON: one object, or with KEY a string");
  CommandLine& deletes = line.addSubcommand("delete", "delete an object");
  deletes.addWord("NAME", name, kName);
  if (!line.parse(words)) return kDone;
  if (lists.chosen()) list(json);
  if (gets.chosen()) get(name, key, json);
  if (deletes.chosen()) remove(name);
  return kDone;
}

}  // namespace kelctl
