// The power fails at every step of a write of the configuration store. What SQLite asks of the disk is
// recorded; the disk that such a failure leaves is made from it: what was synced is there, of the rest
// nothing, all, or any part.
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <new>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "configstore/database.h"
#include "configstore/read.h"
#include "hostFixture.h"
#include "platform/configstore.h"

namespace {

struct Step {
  enum class Kind { create, write, truncate, sync, remove, removeAndSync };
  Kind kind;
  std::string file;        ///< without its directory
  std::int64_t where = 0;  ///< offset, or new length
  std::string bytes;
};

/// The steps since it was made.
class Recorder {
 public:
  Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;
  ~Recorder();
  std::vector<Step> steps;
  bool on = false;

 private:
  sqlite3_vfs vfs_{};
};

Recorder* recorder = nullptr;

// A file of SQLite's: first this, then what the system's own layer keeps.
struct File {
  sqlite3_file base;
  const char* name;

  static sqlite3_file* own(sqlite3_file* file) {
    return reinterpret_cast<sqlite3_file*>(reinterpret_cast<File*>(file) + 1);
  }
  static const sqlite3_io_methods* methods(sqlite3_file* file) { return own(file)->pMethods; }
};

void note(Step::Kind kind, const char* path, std::int64_t where = 0, std::string bytes = {}) {
  if (recorder->on) recorder->steps.push_back({kind, std::filesystem::path(path).filename(), where, std::move(bytes)});
}

int closeFile(sqlite3_file* file) {
  return File::methods(file)->xClose(File::own(file));
}
int readFile(sqlite3_file* file, void* buffer, int count, sqlite3_int64 offset) {
  return File::methods(file)->xRead(File::own(file), buffer, count, offset);
}
int writeFile(sqlite3_file* file, const void* bytes, int count, sqlite3_int64 offset) {
  note(Step::Kind::write, reinterpret_cast<File*>(file)->name, offset,
       {static_cast<const char*>(bytes), static_cast<std::size_t>(count)});
  return File::methods(file)->xWrite(File::own(file), bytes, count, offset);
}
int truncateFile(sqlite3_file* file, sqlite3_int64 size) {
  note(Step::Kind::truncate, reinterpret_cast<File*>(file)->name, size);
  return File::methods(file)->xTruncate(File::own(file), size);
}
// Noting is enough: the power does not really fail.
int syncFile(sqlite3_file* file, int) {
  note(Step::Kind::sync, reinterpret_cast<File*>(file)->name);
  return SQLITE_OK;
}
int fileSize(sqlite3_file* file, sqlite3_int64* size) {
  return File::methods(file)->xFileSize(File::own(file), size);
}
int lockFile(sqlite3_file* file, int level) {
  return File::methods(file)->xLock(File::own(file), level);
}
int unlockFile(sqlite3_file* file, int level) {
  return File::methods(file)->xUnlock(File::own(file), level);
}
int checkLock(sqlite3_file* file, int* held) {
  return File::methods(file)->xCheckReservedLock(File::own(file), held);
}
int controlFile(sqlite3_file* file, int operation, void* argument) {
  return File::methods(file)->xFileControl(File::own(file), operation, argument);
}
int sectorSize(sqlite3_file*) {
  return 4096;
}
// A disk that promises nothing.
int promises(sqlite3_file*) {
  return 0;
}

constexpr sqlite3_io_methods kMethods{1,        closeFile,  readFile,  writeFile,   truncateFile, syncFile, fileSize,
                                      lockFile, unlockFile, checkLock, controlFile, sectorSize,   promises, nullptr,
                                      nullptr,  nullptr,    nullptr,   nullptr,     nullptr};

sqlite3_vfs* systems(sqlite3_vfs* vfs) {
  return static_cast<sqlite3_vfs*>(vfs->pAppData);
}

int openFile(sqlite3_vfs* vfs, const char* path, sqlite3_file* file, int flags, int* out) {
  int exists = 0;
  if (path != nullptr) systems(vfs)->xAccess(systems(vfs), path, SQLITE_ACCESS_EXISTS, &exists);
  auto* const made = ::new (file) File{};
  made->name = path;  // lives as long as the file (sqlite3.h)
  const int status = systems(vfs)->xOpen(systems(vfs), path, File::own(file), flags, out);
  if (status != SQLITE_OK) return status;
  made->base.pMethods = &kMethods;
  if (exists == 0) note(Step::Kind::create, path);
  return SQLITE_OK;
}

int removeFile(sqlite3_vfs* vfs, const char* path, int synced) {
  const int status = systems(vfs)->xDelete(systems(vfs), path, 0);
  if (status == SQLITE_OK) note(synced != 0 ? Step::Kind::removeAndSync : Step::Kind::remove, path);
  return status;
}

Recorder::Recorder() {
  sqlite3_vfs* const own = sqlite3_vfs_find(nullptr);
  vfs_ = *own;
  vfs_.pNext = nullptr;
  vfs_.zName = "recorder";
  vfs_.pAppData = own;
  vfs_.szOsFile += static_cast<int>(sizeof(File));
  vfs_.xOpen = openFile;
  vfs_.xDelete = removeFile;
  recorder = this;
  sqlite3_vfs_register(&vfs_, 1);
}

Recorder::~Recorder() {
  sqlite3_vfs_register(static_cast<sqlite3_vfs*>(vfs_.pAppData), 1);
  sqlite3_vfs_unregister(&vfs_);
  recorder = nullptr;
}

/// How much of what was not synced reached the disk before the power failed.
enum class Unsynced { nothing, everything, anything };

/// A directory on a disk, as its programs see it and as a loss of power leaves it.
class Disk {
 public:
  explicit Disk(const std::string& database) {
    seen_["korvel.db"] = kept_["korvel.db"] = 0;
    files_.push_back({database, {}});
  }

  void take(const Step& step) {
    switch (step.kind) {
      case Step::Kind::create:
        seen_[step.file] = files_.size();
        files_.emplace_back();
        return;
      case Step::Kind::sync: {
        Content& file = files_[seen_.at(step.file)];
        for (const Step& pending : file.pending) apply(pending, file.kept);
        file.pending.clear();
        // With the first sync of a journal that it made, SQLite syncs the directory.
        if (kept_.count(step.file) == 0 || kept_.at(step.file) != seen_.at(step.file)) kept_ = seen_;
        return;
      }
      case Step::Kind::remove:
      case Step::Kind::removeAndSync:
        seen_.erase(step.file);
        if (step.kind == Step::Kind::removeAndSync) kept_ = seen_;
        return;
      case Step::Kind::write:
      case Step::Kind::truncate:
        files_[seen_.at(step.file)].pending.push_back(step);
    }
  }

  void leave(const std::string& directory, Unsynced unsynced, std::mt19937& random) const {
    std::filesystem::remove_all(directory);
    std::filesystem::create_directories(directory);
    const auto reached = [&] {
      return unsynced == Unsynced::everything || (unsynced == Unsynced::anything && random() % 2 == 0);
    };
    for (const auto& [name, number] : reached() ? seen_ : kept_) {
      std::string content = files_[number].kept;
      for (const Step& pending : files_[number].pending) {
        if (reached()) apply(pending, content);
      }
      std::ofstream(std::filesystem::path(directory) / name, std::ios::binary) << content;
    }
  }

 private:
  struct Content {
    std::string kept;
    std::vector<Step> pending;
  };

  static void apply(const Step& step, std::string& content) {
    const auto where = static_cast<std::size_t>(step.where);
    if (step.kind == Step::Kind::truncate) {
      content.resize(where);
      return;
    }
    content.resize(std::max(content.size(), where + step.bytes.size()));
    content.replace(where, step.bytes.size(), step.bytes);
  }

  std::vector<Content> files_;
  std::map<std::string, std::size_t> seen_;  ///< names, and the files that they are of
  std::map<std::string, std::size_t> kept_;
};

class PowerLoss : public HostTest {
 protected:
  using Values = std::vector<std::pair<std::string, std::string>>;

  static Values recordOf(int number) {
    constexpr std::size_t kReasonBytes[] = {16, 20000, 300, 9000};
    const std::string text = std::to_string(number);
    return {{"type", number % 2 == 0 ? "REBOOT" : "POWEROFF"},
            {"user", "user" + text},
            {"subsystem", "subsystem" + text},
            {"timestamp", "time" + text},
            {"reason", text + std::string(kReasonBytes[number % 4], static_cast<char>('a' + number))}};
  }
  static void recordReason(int number) {
    ConfigStore::Object* object = nullptr;
    ASSERT_EQ(ConfigStore::CreateObject("reboot_reason", "qkernel", "orn", "", "{}", &object), 0);
    for (const auto& [key, value] : recordOf(number)) {
      ASSERT_EQ(ConfigStore::SetValueStr(object, key.c_str(), value.c_str()), 0);
    }
    ConfigStore::Store* store = nullptr;
    ASSERT_EQ(ConfigStore::GetStore(0, &store), 0);
    EXPECT_EQ(ConfigStore::SetCachedData(store, object), 0);
    ConfigStore::DestroyConfigStoreObject(object);
    ConfigStore::DestroyStore(store);
  }
  /// The number of the record that is left, which is whole; -1 where there is none.
  static int left() {
    const auto record = platform::readStoredObject("reboot_reason");
    if (record.outcome.status == ENOENT) return -1;
    EXPECT_TRUE(record.ok()) << record.outcome.text;
    if (!record.ok() || record.value.values.size() != 5) return -2;
    const int number = std::stoi(record.value.values[1].second.substr(4));
    EXPECT_EQ(record.value.values, recordOf(number));
    return number;
  }

  Recorder recorder_;
};

TEST_F(PowerLoss, LeavesTheOldRecordOrTheNewOneAndAfterAWriteTheNewOne) {
  constexpr int kWrites = 6;
  constexpr int kTries = 4;
  const std::random_device::result_type seed = std::random_device()();
  std::cout << "seed " << seed << '\n';
  std::mt19937 random(seed);

  // The file itself is made and synced before SQLite sees it.
  Disk disk("");
  std::vector<std::size_t> ends;
  recorder_.on = true;
  for (int number = 0; number < kWrites; ++number) {
    recordReason(number);
    ends.push_back(recorder_.steps.size());
  }
  recorder_.on = false;
  ASSERT_GT(ends.front(), 0U);

  const std::string image = model_.directory() + "/image";
  const ScopedVariable state("KORVEL_STATE_DIR", image.c_str());
  int number = 0;
  for (std::size_t at = 0; at < recorder_.steps.size() && !HasFailure(); ++at) {
    disk.take(recorder_.steps[at]);
    const bool written = at + 1 == ends[static_cast<std::size_t>(number)];
    for (int n = 0; n < kTries; ++n) {
      disk.leave(image, n == 0 ? Unsynced::nothing : n == 1 ? Unsynced::everything : Unsynced::anything, random);
      const int found = left();
      EXPECT_TRUE(found == number || (!written && found == number - 1))
          << "after step " << at << " of " << ends.back() << ", try " << n << ": " << found << " instead of " << number;
    }
    if (written) ++number;
  }
  EXPECT_EQ(number, kWrites);
  std::cout << recorder_.steps.size() << " steps\n";
}

}  // namespace
