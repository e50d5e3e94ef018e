#include "keldPost.h"

namespace keld {

void Post::VProb_PostProblem(const char* markedTemplate, ...) {
  std::va_list args;
  va_start(args, markedTemplate);
  post(false, VProbKind::problem, markedTemplate, args);
  va_end(args);
}

void Post::VProb_PostAudit(const char* markedTemplate, ...) {
  std::va_list args;
  va_start(args, markedTemplate);
  post(false, VProbKind::audit, markedTemplate, args);
  va_end(args);
}

void Post::VProb_PostClear(const char* markedTemplate, ...) {
  std::va_list args;
  va_start(args, markedTemplate);
  post(false, VProbKind::clear, markedTemplate, args);
  va_end(args);
}

void Post::VProb_Post(bool queueOnly, VProbKind kind, const char* markedTemplate, ...) {
  std::va_list args;
  va_start(args, markedTemplate);
  post(queueOnly, kind, markedTemplate, args);
  va_end(args);
}

void Post::Keld_PostProblem(const char* id, const char* messageTemplate, ...) {
  std::va_list args;
  va_start(args, messageTemplate);
  postUnmarked(id, messageTemplate, args);
  va_end(args);
}

}  // namespace keld
