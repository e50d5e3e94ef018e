// The words of `kelctl emit`, as lines of a file and as a command line. Whatever is accepted must
// make a record that the observation library takes.
#include <cstdint>
#include <cstdlib>

#include "emitBatcher.h"
#include "emitWords.h"
#include "platform/kel.h"

namespace {

void requireThat(bool holds) {
  if (!holds) std::abort();
}

void checkEmission(const kelctl::Emission& emission) {
  requireThat(!emission.observation.id.empty() && emission.repeat > 0 && emission.batch > 0);
  requireThat(emission.target.context < kelctl::EmitTarget::kContexts);
  if (kelctl::EmitBatcher::check(emission.observation)) return;
  std::vector<char> record;
  requireThat(KelEmit::appendRecord(emission.observation, record) == 0);
  requireThat(record.size() < kelctl::EmitBatcher::kBatchLimitBytes);
  Kel_RecordView view;
  requireThat(Kel_ViewRecord(record.data(), record.size(), &view));
  requireThat(view.id == emission.observation.id && view.argumentCount == emission.observation.arguments.size());
}

void checkError(const kelctl::WordsError& error) {
  requireThat(!error.reason.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> words;
  while (!rest.empty()) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    words.emplace_back(line);
    const auto parsed = kelctl::parseEmitLine(line, {});
    if (const auto* error = std::get_if<kelctl::WordsError>(&parsed)) {
      checkError(*error);
    } else if (const auto& emission = std::get<std::optional<kelctl::Emission>>(parsed)) {
      checkEmission(*emission);
    }
  }
  // The same lines as the words of one command line.
  auto parsed = kelctl::parseEmitWords(words);
  if (const auto* error = std::get_if<kelctl::WordsError>(&parsed)) {
    checkError(*error);
  } else if (auto& emit = std::get<kelctl::EmitWords>(parsed); emit.id) {
    checkEmission(kelctl::makeEmission(std::move(emit), {}));
  }
  return 0;
}
