#include "configstore/database.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "host/paths.h"
#include "host/uniqueFd.h"

namespace platform {

namespace {

/// Longest text or statement that is stored or read.
constexpr int kValueBytes = 1 << 20;

int errnoOf(int sqliteStatus, int systemErrno) {
  switch (sqliteStatus & 0xff) {
    case SQLITE_OK:
      return 0;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return EBUSY;
    case SQLITE_NOMEM:
      return ENOMEM;
    case SQLITE_READONLY:
      return EROFS;
    case SQLITE_FULL:
      return ENOSPC;
    case SQLITE_TOOBIG:
      return E2BIG;
    case SQLITE_PERM:
    case SQLITE_AUTH:
      return EACCES;
    default:
      return systemErrno > 0 ? systemErrno : EIO;
  }
}

Outcome troubleOf(sqlite3* database) {
  if (database == nullptr) return {ENOMEM, {}};
  const int status = sqlite3_extended_errcode(database);
  return {errnoOf(status, sqlite3_system_errno(database)), sqlite3_errmsg(database)};
}

/// Between two attempts to get a lock. SQLite's own handler waits longer and longer, so that a writer
/// that hardly pauses starves all others.
constexpr std::chrono::milliseconds kLockAttemptPause{1};

int waitABit(void*, int attempts) {
  if (attempts >= kDatabasePatience / kLockAttemptPause) return 0;
  sqlite3_sleep(static_cast<int>(kLockAttemptPause.count()));
  return 1;
}

void sync(int fd) {
  while (::fsync(fd) != 0 && errno == EINTR) {
  }
}

/// Has the names in a directory outlast a loss of power. Not every file system can do that, which is
/// no reason to store nothing.
void syncDirectory(const std::filesystem::path& path) {
  const UniqueFd directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory) sync(directory.get());
}

// An empty file is a valid database. It is made under another name and then linked, because to close
// a descriptor of a database drops every lock that this process holds on it.
int makeEmptyFile(const std::string& path) {
  std::string temporary = path + ".XXXXXX";
  UniqueFd file(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!file) return errno;
  sync(file.get());
  file.reset();
  const int status = ::link(temporary.c_str(), path.c_str()) == 0 || errno == EEXIST ? 0 : errno;
  (void)::unlink(temporary.c_str());
  return status;
}

/// Makes the file and what is missing of its directory's path.
int makeDatabaseFile(const std::string& path) {
  const std::filesystem::path home = std::filesystem::path(path).parent_path();
  std::filesystem::path known = home;
  std::error_code error;
  while (known.has_relative_path() && !std::filesystem::exists(known, error)) known = known.parent_path();
  int status = makePrivateDirectory(home);
  if (status == 0) status = makeEmptyFile(path);
  if (status != 0) return status;
  std::filesystem::path directory = home;
  for (syncDirectory(directory); directory != known; syncDirectory(directory)) directory = directory.parent_path();
  return 0;
}

}  // namespace

std::string databasePath() {
  return stateDirectory() + "/korvel.db";
}

void Statement::Finalizer::operator()(sqlite3_stmt* statement) const noexcept {
  sqlite3_finalize(statement);
}

// A bind that fails leaves the parameter null, which every column of the tables refuses.
void Statement::bind(int parameter, std::string_view value) {
  (void)sqlite3_bind_text64(statement_.get(), parameter, value.data(), value.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

void Statement::bind(int parameter, std::int64_t value) {
  (void)sqlite3_bind_int64(statement_.get(), parameter, value);
}

Statement::Step Statement::step() {
  switch (sqlite3_step(statement_.get())) {
    case SQLITE_ROW:
      return Step::row;
    case SQLITE_DONE:
      return Step::done;
    default:
      return Step::failed;
  }
}

void Statement::reset() {
  (void)sqlite3_reset(statement_.get());
}

std::string Statement::text(int column) const {
  const auto* const text = sqlite3_column_text(statement_.get(), column);
  const int size = sqlite3_column_bytes(statement_.get(), column);
  if (text == nullptr || size <= 0) return {};
  return {reinterpret_cast<const char*>(text), static_cast<std::size_t>(size)};
}

std::int64_t Statement::integer(int column) const {
  return sqlite3_column_int64(statement_.get(), column);
}

void Database::Closer::operator()(sqlite3* database) const noexcept {
  sqlite3_close_v2(database);
}

Answer<Database> Database::open(const std::string& path) {
  Answer<Database> opened;
  sqlite3* raw = nullptr;
  // Also for reading: only a connection that may write can undo what a killed writer left half done.
  const int status = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  opened.value.database_.reset(raw);
  if (status != SQLITE_OK) {
    opened.outcome = troubleOf(raw);
    return opened;
  }
  sqlite3_busy_handler(raw, waitABit, nullptr);
  sqlite3_limit(raw, SQLITE_LIMIT_LENGTH, kValueBytes);
  sqlite3_db_config(raw, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(raw, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  // EXTRA: also the removal of the rollback journal, which is what commits a transaction, is synced, so
  // that what was stored before a loss of power stays stored.
  opened.outcome = opened.value.run("PRAGMA foreign_keys = ON; PRAGMA synchronous = EXTRA");
  return opened;
}

Answer<Database> Database::openExisting() {
  const std::string path = databasePath();
  struct stat facts {};
  if (::stat(path.c_str(), &facts) != 0) {
    Answer<Database> none;
    none.outcome.status = errno;
    return none;
  }
  return open(path);
}

Answer<Database> Database::openOrCreate() {
  const std::string path = databasePath();
  struct stat facts {};
  if (::stat(path.c_str(), &facts) != 0) {
    Answer<Database> failed;
    failed.outcome.status = makeDatabaseFile(path);
    if (!failed.ok()) return failed;
  }
  return open(path);
}

Outcome Database::run(const char* statements) {
  if (sqlite3_exec(database_.get(), statements, nullptr, nullptr, nullptr) == SQLITE_OK) return {};
  return trouble();
}

Statement Database::prepare(std::string_view sql) {
  sqlite3_stmt* statement = nullptr;
  (void)sqlite3_prepare_v2(database_.get(), sql.data(), static_cast<int>(sql.size()), &statement, nullptr);
  return Statement(statement);
}

Answer<bool> Database::hasTable(std::string_view table) {
  Statement query = prepare("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ?1");
  query.bind(1, table);
  const Statement::Step step = query.step();
  if (step == Statement::Step::failed) return {trouble(), false};
  return {{}, step == Statement::Step::row};
}

Outcome Database::trouble() const {
  Outcome outcome = troubleOf(database_.get());
  if (outcome.ok()) outcome.status = EIO;
  return outcome;
}

Outcome Database::finish(Statement& statement) const {
  return statement.step() == Statement::Step::done ? Outcome{} : trouble();
}

}  // namespace platform
