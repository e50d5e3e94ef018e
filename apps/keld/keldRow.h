// Rows: observations that translate one to one, and the events of those that are judged.
//
// A row is checked while it compiles: its placeholders against its arguments, the event's prefix
// against the kind, the event's name against the longest that can be posted. At run time the split
// of a marked template is blind.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "keldArguments.h"
#include "keldFramework.h"
#include "keldPost.h"
#include "platform/kel.h"

namespace keld {

// Never defined: a bad row calls one of them while its table compiles, and the name says why.
void observation_outside_group();          // NOLINT(readability-identifier-naming)
void observation_listed_twice();           // NOLINT(readability-identifier-naming)
void unknown_conversion();                 // NOLINT(readability-identifier-naming)
void event_prefix_does_not_fit_kind();     // NOLINT(readability-identifier-naming)
void event_name_longer_than_128();         // NOLINT(readability-identifier-naming)
void placeholder_without_argument();       // NOLINT(readability-identifier-naming)
void argument_does_not_fit_placeholder();  // NOLINT(readability-identifier-naming)
void wording_without_argument();           // NOLINT(readability-identifier-naming)

/// A text of an observation. One that is null is passed on as it is, and shows as "(null)".
using Text = const char*;

/// What an argument is read as; `any` is an integer read by index, which fits every integer placeholder,
/// `count` one without sign, which fits those of 64 bits.
enum class Arg { none, text, i16, i32, i64, any, count };

/// The n-th conversion of `format`; `text` is the letter that means text there: 's' writing, and 'p'
/// reading, where 's' does as well.
constexpr Arg conversion(std::string_view format, char text, std::size_t n) {
  for (auto at = format.find('%'); at != std::string_view::npos; at = format.find('%', at)) {
    const auto size = format.find_first_not_of("#-+ .0123456789", at + 1);
    const auto letter = size == std::string_view::npos ? size : format.find_first_not_of("hl", size);
    if (letter == std::string_view::npos) unknown_conversion();
    at = letter + 1;
    if (format[letter] == '%' || n-- != 0) continue;
    if (format[letter] == text || (text == 'p' && format[letter] == 's')) return Arg::text;
    if (std::string_view("diuxX").find(format[letter]) == std::string_view::npos || letter - size > 1)
      unknown_conversion();
    if (letter == size) return Arg::i32;
    return format[size] == 'l' ? Arg::i64 : Arg::i16;
  }
  return Arg::none;
}

/// Argument n of a reading: "%p %d", or a message with its conversions, is one Kel_GetArgs call; "siu" is
/// text, integer and count by index.
constexpr Arg argument(std::string_view read, std::size_t n) {
  if (read.find('%') != std::string_view::npos) return conversion(read, 'p', n);
  if (n >= read.size()) return Arg::none;
  if (std::string_view("siu").find(read[n]) == std::string_view::npos) unknown_conversion();
  return read[n] == 's' ? Arg::text : read[n] == 'i' ? Arg::any : Arg::count;
}

/// Whether an argument read as `have` fills a placeholder that prints `want`.
constexpr bool fits(Arg have, Arg want) {
  return have == want || (have == Arg::any && want != Arg::text) || (have == Arg::count && want == Arg::i64);
}

constexpr std::size_t argumentCount(std::string_view read) {
  std::size_t count = 0;
  while (argument(read, count) != Arg::none) ++count;
  return count;
}

/// The parts of a marked template.
inline constexpr std::string_view kMarker = "@&!*@*@(";
inline constexpr std::size_t kMaxEventName = 128;

constexpr std::string_view eventName(std::string_view marked) {
  return marked.substr(kMarker.size(), marked.find(')') - kMarker.size());
}
constexpr std::string_view eventMessage(std::string_view marked) {
  return marked.substr(marked.find(')') + 1);
}

consteval void checkMarked(VProbKind kind, std::string_view marked) {
  constexpr std::string_view kPrefixes[] = {"orn.problem.", "orn.audit.", "orn.clear."};
  if (marked.find(')') == std::string_view::npos || !marked.starts_with(kMarker) ||
      !marked.substr(kMarker.size()).starts_with(kPrefixes[static_cast<int>(kind)])) {
    event_prefix_does_not_fit_kind();
  }
  if (eventName(marked).size() > kMaxEventName) event_name_longer_than_128();
}

/// A fill that takes the arguments in their order.
inline constexpr std::string_view kInOrder = "012345678";

/// One observation and the event that it becomes.
struct Row {
  std::string_view observation;
  std::string_view read;
  std::string_view text;  ///< a marked template, NUL-terminated
  std::string_view fill;  ///< fill[n] is the argument that fills placeholder n
  VProbKind kind;
  /// Logged, with the status, where argument n cannot be read by index, or the one reading of all
  /// fails; the table's wording without.
  std::span<const char* const> unreadable;

  consteval Row(std::string_view o, std::string_view r, VProbKind k, std::string_view t, std::string_view f = kInOrder,
                std::span<const char* const> u = {})
      : observation(o), read(r), text(t), fill(f), kind(k), unreadable(u) {
    if (!u.empty() && u.size() != (r.find('%') != std::string_view::npos ? 1 : r.size())) wording_without_argument();
    for (const std::string_view wording : u) {
      if (conversion(wording, 's', 0) != Arg::i32 || conversion(wording, 's', 1) != Arg::none)
        wording_without_argument();
    }
    checkMarked(k, t);
    for (std::size_t n = 0; conversion(eventMessage(t), 's', n) != Arg::none; ++n) {
      const Arg want = conversion(eventMessage(t), 's', n);
      const Arg have = n < f.size() ? argument(r, static_cast<std::size_t>(f[n] - '0')) : Arg::none;
      if (have == Arg::none) placeholder_without_argument();
      if (!fits(have, want)) argument_does_not_fit_placeholder();
    }
  }
};

/// A table of rows whose observations all begin with `group` ("kel.net."), none twice.
template <std::size_t N>
consteval std::array<Row, N> table(std::string_view group, const Row (&rows)[N]) {
  for (const Row& row : rows) {
    if (!row.observation.starts_with(group)) observation_outside_group();
    for (const Row& other : rows) {
      if (&other != &row && other.observation == row.observation) observation_listed_twice();
    }
  }
  return std::to_array(rows);
}

/// The elements of several tables of one correlator, in their order.
template <typename T, std::size_t... kN>
constexpr auto joinTables(const std::array<T, kN>&... tables) {
  return std::apply([](const auto&... elements) { return std::array<T, sizeof...(elements)>{elements...}; },
                    std::tuple_cat(tables...));
}

/// A marked template for the catalogue.
struct EventInfo {
  VProbKind kind;
  std::string_view text;
};

/// An event that a handler posts itself; A are its arguments' types in the order of the placeholders.
template <typename... A>
struct Event : EventInfo {
  consteval Event(VProbKind k, std::string_view t) : EventInfo{k, t} {
    checkMarked(k, t);
    std::size_t n = 0;
    (check<A>(n++), ...);
    if (conversion(eventMessage(t), 's', n) != Arg::none) placeholder_without_argument();
  }

// An event's text is checked while it is compiled.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
  void post(Post& out, A... arguments) const {
    out.VProb_Post(false, kind, text.data(), arguments...);
  }
  /// For an event whose receiver is known to be gone.
  void postQueueOnly(Post& out, A... arguments) const {
    out.VProb_Post(true, kind, text.data(), arguments...);
  }
#pragma GCC diagnostic pop

 private:
  template <typename T>
  consteval void check(std::size_t n) const {
    const Arg want = conversion(eventMessage(text), 's', n);
    const Arg have = std::is_same_v<T, const char*>      ? Arg::text
                     : sizeof(T) == sizeof(std::int64_t) ? Arg::i64
                                                         : Arg::i32;
    if (want != have) argument_does_not_fit_placeholder();
  }
};

/// An observation that a handler judges: how it is read and which events can come of it.
struct Judged {
  std::string_view observation;
  std::string_view read;
  std::span<const EventInfo* const> events;
};

/// Registers a handler that does nothing for each observation that is known and gives no event, unless
/// it has one.
void addIgnored(HandlerTable& handlers, std::span<const Judged> judged);

/// What a table's rows do when their arguments cannot be read.
enum class OnUnreadable {
  silent,
  failedToGetParams,
  failedToCorrelate,
  postsWithout,  ///< the event is posted all the same, with null texts and zeros
};

/// Logs the table's text for an observation whose arguments could not be read.
void logUnreadable(OnUnreadable how, const Kel* observation, int status);
/// Logs what a row says of an argument that could not be read by index; `text` has one %d.
void logUnreadable(const char* text, int status);

/// Reads the arguments of one row, each as the type that the row says, and posts its event.
template <const auto& kRows, std::size_t kIndex>
class Translation {
  static constexpr const Row& kRow = kRows[kIndex];
  static constexpr bool kByIndex = kRow.read.find('%') == std::string_view::npos;
  static constexpr auto kArguments = std::make_index_sequence<argumentCount(kRow.read)>();

  template <Arg kArg>
  static auto valueType() {
    if constexpr (kArg == Arg::text)
      return static_cast<const char*>(nullptr);
    else if constexpr (kArg == Arg::i16)
      return std::int16_t{};
    else if constexpr (kArg == Arg::i32)
      return int{};
    else if constexpr (kArg == Arg::count)
      return std::uint64_t{};
    else
      return std::int64_t{};
  }

  static int readOne(const Kel* observation, unsigned index, const char** value) {
    return Kel_GetStringArg(observation, index, value);
  }
  static int readOne(const Kel* observation, unsigned index, std::int64_t* value) {
    return Kel_GetIntArg(observation, index, value);
  }
  static int readOne(const Kel* observation, unsigned index, std::uint64_t* value) {
    return Kel_GetUintArg(observation, index, value);
  }

  /// How reading went, and the argument at which it failed by index.
  struct Reading {
    int status = 0;
    std::size_t index = 0;
  };

  template <std::size_t... kN>
  static Reading read(const Kel* observation, auto& values, std::index_sequence<kN...>) {
    Reading reading;
    if constexpr (sizeof...(kN) == 0)
      return reading;
    else if constexpr (kByIndex) {
      static_cast<void>((((reading = {readOne(observation, kN, &std::get<kN>(values)), kN}).status == 0) && ...));
      return reading;
    } else {
      return {Kel_GetArgs(observation, 0, kRow.read.data(), &std::get<kN>(values)...), 0};
    }
  }

  template <std::size_t kPlaceholder>
  static auto filler(const auto& values) {
    const auto value = std::get<static_cast<std::size_t>(kRow.fill[kPlaceholder] - '0')>(values);
    if constexpr (conversion(eventMessage(kRow.text), 's', kPlaceholder) == Arg::i32)
      return static_cast<int>(value);
    else
      return value;
  }

  static constexpr std::size_t placeholders() {
    std::size_t count = 0;
    while (conversion(eventMessage(kRow.text), 's', count) != Arg::none) ++count;
    return count;
  }

 public:
// The text of a row is checked while it is compiled.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
  /// False where the arguments could not be read and nothing was posted.
  static bool handle(Post& post, OnUnreadable how, const Kel* observation) {
    return [&]<std::size_t... kN>(std::index_sequence<kN...>) {
      std::tuple values{valueType<argument(kRow.read, kN)>()...};
      if (const Reading reading = read(observation, values, kArguments);
          reading.status != 0 && how != OnUnreadable::postsWithout) {
        if constexpr (kRow.unreadable.empty())
          logUnreadable(how, observation, reading.status);
        else
          logUnreadable(kRow.unreadable[reading.index], reading.status);
        return false;
      }
      [&]<std::size_t... kP>(std::index_sequence<kP...>) {
        post.VProb_Post(false, kRow.kind, kRow.text.data(), filler<kP>(values)...);
      }
      (std::make_index_sequence<placeholders()>());
      return true;
    }
    (kArguments);
  }
#pragma GCC diagnostic pop
};

/// Reads one row's arguments and posts its event. False where they could not be read.
using Translate = bool (*)(Post& post, OnUnreadable how, const Kel* observation);

/// The translations of a table's rows, in their order.
template <const auto& kRows>
constexpr auto translations() {
  return []<std::size_t... kN>(std::index_sequence<kN...>) {
    return std::array<Translate, sizeof...(kN)>{Translation<kRows, kN>::handle...};
  }
  (std::make_index_sequence<kRows.size()>());
}

/// Registers a handler for every row of a table; `post` must outlive the handlers.
template <const auto& kRows>
void addRows(HandlerTable& handlers, Post& post, OnUnreadable how) {
  static constexpr auto kTranslations = translations<kRows>();
  for (std::size_t n = 0; n < kRows.size(); ++n) {
    handlers.emplace(std::string(kRows[n].observation), [&post, how, n](const Kel* observation) {
      const char* const id = identifierOf(observation);
      if (id != nullptr && kRows[n].observation == id) kTranslations[n](post, how, observation);
    });
  }
}

}  // namespace keld
