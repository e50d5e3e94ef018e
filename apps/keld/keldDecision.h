// Decisions: what a correlator's state said of an observation, and by which number, for whoever asks why an
// event was, or was not, posted. The daemon asks nobody: a report is then the test of one pointer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

namespace keld {

enum class DecisionKind {
  counts,     ///< a window or count took this in, and it is not enough
  waits,      ///< something was put on record that a timer settles
  holds,      ///< nothing is said: a hold-off, a state or a flag is why
  concludes,  ///< enough: an event follows, or what was on record is settled by one
  acts,       ///< the host was asked to do something, or refused it
  forgets,    ///< state was dropped or taken back
};

/// One way in which a correlator can decide. Each is a constant that its correlator lists.
struct Decision {
  std::string_view name;  ///< "net.flapping.taken-down": the correlator, the matter, what was decided
  std::string_view text;  ///< what is said of it, with "{}" for each value
  DecisionKind kind;
  /// How long what it begins lasts, in seconds; 0 where it begins nothing. Negative: value -n (from 1) says it.
  std::int64_t seconds;
};

/// A number that decided, or a name.
using DecisionValue = std::variant<std::int64_t, std::string_view>;

/// Takes decisions while they are made. Used by the thread that handles observations or fires timers.
class DecisionListener {
 public:
  DecisionListener() = default;
  DecisionListener(const DecisionListener&) = delete;
  DecisionListener& operator=(const DecisionListener&) = delete;
  virtual ~DecisionListener() = default;

  /// `subject` is what it is about: a NIC, a path, a page; empty where there is only one. All are valid
  /// during the call alone.
  virtual void decided(const Decision& decision, std::string_view subject, std::span<const DecisionValue> values) = 0;
};

/// The text of a decision with its values.
std::string decisionText(const Decision& decision, std::span<const DecisionValue> values);

// Never defined: named by a decision whose text does not fit its values, while that compiles.
void placeholders_do_not_fit_values();  // NOLINT(readability-identifier-naming)

/// A decision with values of the types A: std::int64_t or std::string_view.
template <typename... A>
struct Decides : Decision {
  static_assert(((std::is_same_v<A, std::int64_t> || std::is_same_v<A, std::string_view>)&&...));

  consteval Decides(DecisionKind k, std::string_view n, std::string_view t, std::int64_t lasts = 0)
      : Decision{n, t, k, lasts} {
    std::size_t placeholders = 0;
    for (std::size_t at = t.find("{}"); at != std::string_view::npos; at = t.find("{}", at + 2)) ++placeholders;
    if (placeholders != sizeof...(A) || lasts < -static_cast<std::int64_t>(sizeof...(A)))
      placeholders_do_not_fit_values();
  }

  /// Reports it of `subject`; does nothing where nobody listens.
  void report(DecisionListener* listener, std::string_view subject, std::type_identity_t<A>... values) const {
    if (listener == nullptr) return;
    const std::initializer_list<DecisionValue> all{values...};
    listener->decided(*this, subject, {all.begin(), all.size()});
  }
};

}  // namespace keld
