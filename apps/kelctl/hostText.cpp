#include "hostText.h"

#include "console.h"

namespace kelctl {

namespace {

constexpr std::size_t kIndent = 2;

std::string scalar(const Json& value) {
  return printable(value.is_string() ? value.get<std::string>() : jsonLine(value));
}

bool isFlat(const Json& object) {
  for (const Json& value : object) {
    if (value.is_structured() && !value.empty()) return false;
  }
  return true;
}

std::string inOneLine(const Json& object) {
  std::string text;
  for (const auto& [key, value] : object.items()) {
    text.append(text.empty() ? "" : ", ").append(printable(key)).append(" ").append(scalar(value));
  }
  return text;
}

void append(std::string& text, const Json& value, std::size_t indent);

void appendItem(std::string& text, const Json& item, std::size_t indent) {
  const std::string begin = std::string(indent, ' ') + "-";
  if (!item.is_structured()) {
    text += begin + ' ' + scalar(item) + '\n';
  } else if (item.is_object() && isFlat(item)) {
    text += begin + ' ' + inOneLine(item) + '\n';
  } else {
    text += begin + '\n';
    append(text, item, indent + kIndent);
  }
}

void append(std::string& text, const Json& value, std::size_t indent) {
  if (value.is_array()) {
    for (const Json& item : value) appendItem(text, item, indent);
    return;
  }
  if (!value.is_object()) {
    text += std::string(indent, ' ') + scalar(value) + '\n';
    return;
  }
  for (const auto& [key, member] : value.items()) {
    text += std::string(indent, ' ') + printable(key) + ':';
    if (member.is_structured() && !member.empty()) {
      text += '\n';
      append(text, member, indent + kIndent);
    } else {
      text += ' ' + (member.is_structured() ? std::string("none") : scalar(member)) + '\n';
    }
  }
}

}  // namespace

std::string hostText(const Json& value) {
  std::string text;
  append(text, value, 0);
  return text;
}

}  // namespace kelctl
