// The instance's database: one SQLite file in the state directory that any number of processes use.
//
// A connection and its statements belong to one thread; open them where they are needed, and keep
// none over a fork(2).
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "host/host.h"

struct sqlite3;
struct sqlite3_stmt;

namespace platform {

/// How long an access waits for another process's transaction before it fails with EBUSY.
inline constexpr std::chrono::seconds kDatabasePatience{5};

/// `korvel.db` of the state directory in force.
std::string databasePath();

/// One statement; text columns are valid until the next step.
class Statement {
 public:
  enum class Step { row, done, failed };

  /// Parameters count from 1, columns from 0.
  void bind(int parameter, std::string_view value);
  void bind(int parameter, std::int64_t value);
  Step step();
  /// Makes it ready for another run; what was bound stays.
  void reset();
  [[nodiscard]] std::string text(int column) const;
  [[nodiscard]] std::int64_t integer(int column) const;

 private:
  friend class Database;
  struct Finalizer {
    void operator()(sqlite3_stmt* statement) const noexcept;
  };
  explicit Statement(sqlite3_stmt* statement) : statement_(statement) {}
  std::unique_ptr<sqlite3_stmt, Finalizer> statement_;
};

class Database {
 public:
  /// None; only to be assigned to.
  Database() = default;
  /// Opens the database as it is; ENOENT where there is none. Recovers what a killed writer left.
  static Answer<Database> openExisting();
  /// Opens the database, made first (mode 0600, its directory 0700) where it is missing.
  static Answer<Database> openOrCreate();

  /// Runs statements that yield no rows.
  Outcome run(const char* statements);
  /// A statement that fails in its first step where `sql` is wrong.
  Statement prepare(std::string_view sql);
  /// Fails where the file is no database.
  Answer<bool> hasTable(std::string_view table);
  /// What went wrong in the last call, as an errno value with SQLite's text.
  [[nodiscard]] Outcome trouble() const;

  /// Runs `work` (returning an Outcome) in one transaction that holds the write lock from its
  /// beginning; it is undone unless all of it succeeds.
  template <typename Work>
  Outcome inTransaction(const Work& work) {
    if (Outcome begun = run("BEGIN IMMEDIATE"); !begun.ok()) return begun;
    Outcome outcome = work();
    if (outcome.ok()) outcome = run("COMMIT");
    // Failing to undo is no news: closing the connection undoes it, too.
    if (!outcome.ok()) (void)run("ROLLBACK");
    return outcome;
  }

  /// Runs a statement without rows to its end.
  [[nodiscard]] Outcome finish(Statement& statement) const;

 private:
  struct Closer {
    void operator()(sqlite3* database) const noexcept;
  };
  static Answer<Database> open(const std::string& path);

  std::unique_ptr<sqlite3, Closer> database_;
};

}  // namespace platform
