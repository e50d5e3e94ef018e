// kelctl boot-report: tells the daemon, once in a boot, why the host went down before it.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "bootReport.h"
#include "bootReportDelivery.h"
#include "bootReportMarker.h"
#include "commandLine.h"
#include "console.h"
#include "failure.h"
#include "host/files.h"
#include "host/paths.h"
#include "localConnection.h"

namespace kelctl {

namespace {

using platform::StoredObject;
using std::chrono::steady_clock;

constexpr double kDefaultTimeoutSeconds = 30;
constexpr std::chrono::milliseconds kDirectoryPause{20};

void print(const std::string& text) {
  Output out;
  out.write(text);
  out.flush();
}

/// The record as the daemon names it.
std::optional<StoredObject> readRecord() {
  auto record = platform::readStoredObject("reboot_reason", "qkernel", "orn", "");
  if (record.ok()) return std::move(record.value);
  if (record.outcome.status == ENOENT) return std::nullopt;
  throw Failure("cannot read the last reboot's reason: " + platform::reasonOf(record.outcome));
}

/// Keeps a second report from running beside this one. Waits for the run directory, which the daemon
/// makes.
platform::UniqueFd lockRunDirectory(steady_clock::time_point due) {
  const std::string directory = platform::runDirectory();
  while (true) {
    platform::UniqueFd lock(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (lock && ::flock(lock.get(), LOCK_EX | LOCK_NB) == 0) return lock;
    if (lock && errno == EWOULDBLOCK) throw Failure("another boot-report is at work");
    if (errno != ENOENT || steady_clock::now() + kDirectoryPause >= due) {
      throw Failure(fmt::format("cannot use {}: {}; is keld running?", directory, platform::errnoText(errno)));
    }
    std::this_thread::sleep_for(kDirectoryPause);
  }
}

void clear(const StoredObject& record) {
  const platform::Outcome cleared = platform::deleteUnchangedObject(record);
  if (cleared.status == ESTALE) {
    complain("another reason was recorded meanwhile; it stays for the next boot");
  } else if (!cleared.ok() && cleared.status != ENOENT) {
    throw Failure("reported, but cannot clear the record: " + platform::reasonOf(cleared));
  }
}

void report(const BootReportMarker& marker, bool force, steady_clock::time_point due) {
  const auto reported = [&] { return !force && marker.isSet(); };
  const auto sayReported = [] { print("already reported in this boot; --force reports again\n"); };
  if (reported()) return sayReported();
  const platform::UniqueFd lock = lockRunDirectory(due);
  if (reported()) return sayReported();
  const std::optional<StoredObject> record = readRecord();
  const KelEmit::Observation observation = bootObservation(record);
  std::vector<char> batch;
  if (const int status = KelEmit::appendRecord(observation, batch); status != 0) {
    throw Failure(fmt::format("no record can be made of {}: {}", observation.id, platform::errnoText(status)));
  }
  deliverToDaemon(batch, due);
  // Whatever happens from here on, the reason was reported: at worst it is once more.
  if (record) clear(*record);
  marker.set();
  print(fmt::format("reported {}\n", observation.id));
}

}  // namespace

int runBootReport(const Words& words) {
  bool dryRun = false;
  bool force = false;
  std::optional<double> seconds;
  CommandLine line("boot-report", "Reports once in a boot why the host went down before, and clears that record.");
  line.addFlag("--dry-run", dryRun, "print the observation as a 'kelctl emit' line; nothing is changed");
  line.addFlag("--force", force, "report even where this boot's report has been made");
  line.addSeconds("--timeout", seconds, "wait so long for the daemon (default: 30)");
  if (!line.parse(words)) return kDone;
  if (dryRun) {
    print(emitLine(bootObservation(readRecord())) + "\n");
    return kDone;
  }
  const std::chrono::duration<double> timeout(seconds.value_or(kDefaultTimeoutSeconds));
  report(BootReportMarker(runPath("boot-reported")), force,
         steady_clock::now() + std::chrono::duration_cast<steady_clock::duration>(timeout));
  return kDone;
}

}  // namespace kelctl
