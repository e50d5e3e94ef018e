// Posting as correlators see it: a kind, a marked template and its arguments.
#pragma once

#include <cstdarg>

namespace keld {

enum class VProbKind : int { problem = 0, audit = 1, clear = 2 };

/// The interface through which every event leaves a correlator. Posting never fails from the
/// caller's point of view and may be done from any thread. A marked template is "@&!*@*@(", the
/// event's full identifier, ")" and a printf-style message.
class Post {
 public:
  Post() = default;
  Post(const Post&) = delete;
  Post& operator=(const Post&) = delete;
  virtual ~Post() = default;

  void VProb_PostProblem(const char* markedTemplate, ...) __attribute__((format(printf, 2, 3)));
  void VProb_PostAudit(const char* markedTemplate, ...) __attribute__((format(printf, 2, 3)));
  void VProb_PostClear(const char* markedTemplate, ...) __attribute__((format(printf, 2, 3)));
  /// `queueOnly` skips the immediate delivery: for events whose receiver is known to be gone.
  void VProb_Post(bool queueOnly, VProbKind kind, const char* markedTemplate, ...)
      __attribute__((format(printf, 4, 5)));
  /// The discouraged interface: identifier without prefix and marker, always a problem.
  void Keld_PostProblem(const char* id, const char* messageTemplate, ...) __attribute__((format(printf, 3, 4)));

 private:
  virtual void post(bool queueOnly, VProbKind kind, const char* markedTemplate, std::va_list args) = 0;
  virtual void postUnmarked(const char* id, const char* messageTemplate, std::va_list args) = 0;
};

}  // namespace keld
