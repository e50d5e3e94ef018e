#include "host/storedOptions.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <mutex>
#include <utility>

#include "configstore/database.h"

namespace platform {

namespace {

constexpr const char* kTable = "options";
constexpr const char* kCreateTable =
    "CREATE TABLE IF NOT EXISTS options (name TEXT PRIMARY KEY NOT NULL, value INTEGER NOT NULL) WITHOUT ROWID";

/// Which file a connection is to, and whose: a connection must not be used, or closed, after a fork(2).
struct Identity {
  dev_t device = 0;
  ino_t inode = 0;
  pid_t process = 0;
  bool operator==(const Identity&) const = default;
};

/// A connection that stays open between reads, with the statement that reads one option.
class Reader {
 public:
  Answer<std::optional<std::int64_t>> read(const std::string& name) {
    const std::lock_guard lock(mutex_);
    struct stat facts {};
    if (::stat(databasePath().c_str(), &facts) != 0) {
      const int status = errno;
      forget();
      if (status == ENOENT) return {};
      return {{status, {}}, {}};
    }
    const Identity now{facts.st_dev, facts.st_ino, ::getpid()};
    Answer<std::optional<std::int64_t>> answer = now == identity_ ? step(name) : connect(now, name);
    if (!answer.ok()) forget();
    return answer;
  }

 private:
  struct Connection {
    Database database;
    std::optional<Statement> statement;  ///< none until the table is there
  };

  Answer<std::optional<std::int64_t>> connect(const Identity& identity, const std::string& name) {
    forget();
    Answer<Database> opened = Database::openExisting();
    if (opened.outcome.status == ENOENT) return {};
    if (!opened.ok()) return {std::move(opened.outcome), {}};
    connection_ = std::make_unique<Connection>(Connection{std::move(opened.value), {}});
    identity_ = identity;
    return step(name);
  }

  Answer<std::optional<std::int64_t>> step(const std::string& name) {
    Database& database = connection_->database;
    if (!connection_->statement) {
      Answer<bool> used = database.hasTable(kTable);
      if (!used.ok() || !used.value) return {std::move(used.outcome), {}};
      connection_->statement = database.prepare("SELECT value FROM options WHERE name = ?1");
    }
    Statement& statement = *connection_->statement;
    statement.bind(1, name);
    Answer<std::optional<std::int64_t>> answer;
    switch (statement.step()) {
      case Statement::Step::row:
        answer.value = statement.integer(0);
        break;
      case Statement::Step::done:
        break;
      case Statement::Step::failed:
        answer.outcome = database.trouble();
        break;
    }
    // Ends the read, and with it the lock that would keep writers out.
    statement.reset();
    return answer;
  }

  void forget() {
    // A child of fork(2) may not even close what its parent opened.
    if (connection_ != nullptr && identity_.process != ::getpid()) (void)connection_.release();
    connection_.reset();
    identity_ = {};
  }

  std::mutex mutex_;
  std::unique_ptr<Connection> connection_;
  Identity identity_;
};

// Kept for the process's life, so that threads which outlast main() may still ask it.
Reader& reader() {
  static auto* const kept = new Reader;
  return *kept;
}

}  // namespace

Answer<std::optional<std::int64_t>> storedOption(const std::string& name) {
  return reader().read(name);
}

Answer<std::map<std::string, std::int64_t>> storedOptions() {
  Answer<std::map<std::string, std::int64_t>> options;
  Answer<Database> database = Database::openExisting();
  if (database.outcome.status == ENOENT) return options;
  if (!database.ok()) return {std::move(database.outcome), {}};
  Answer<bool> used = database.value.hasTable(kTable);
  if (!used.ok() || !used.value) return {std::move(used.outcome), {}};
  Statement query = database.value.prepare("SELECT name, value FROM options");
  for (Statement::Step step = query.step(); step != Statement::Step::done; step = query.step()) {
    if (step == Statement::Step::failed) return {database.value.trouble(), {}};
    options.value[query.text(0)] = query.integer(1);
  }
  return options;
}

Outcome storeOption(const std::string& name, std::int64_t value) {
  Answer<Database> database = Database::openOrCreate();
  if (!database.ok()) return std::move(database.outcome);
  return database.value.inTransaction([&] {
    Outcome outcome = database.value.run(kCreateTable);
    if (!outcome.ok()) return outcome;
    Statement insert = database.value.prepare("INSERT OR REPLACE INTO options (name, value) VALUES (?1, ?2)");
    insert.bind(1, name);
    insert.bind(2, value);
    return database.value.finish(insert);
  });
}

}  // namespace platform
