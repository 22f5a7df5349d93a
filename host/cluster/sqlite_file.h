/*
 * One connection to a SQLite file, with the few calls that the cluster store makes of it. For one thread at a time.
 */
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace host {

// what() is one line: the file, and what is wrong with it.
struct SqliteError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Another process holds the file for longer than the patience.
struct SqliteBusy : SqliteError {
    using SqliteError::SqliteError;
};

// A statement with its values, made anew for each run. Values are bound in the order of the statement's '?'.
class SqliteQuery {
public:
    ~SqliteQuery();
    SqliteQuery(const SqliteQuery &) = delete;
    SqliteQuery &operator=(const SqliteQuery &) = delete;

    SqliteQuery &number(uint64_t value);
    SqliteQuery &bytes(std::string_view value); // not copied: must live until the query is gone
    // The next row; false when there is none.
    bool next();
    // Runs a statement whose rows do not matter.
    void run();

    uint64_t numberAt(int column) const;
    std::string bytesAt(int column) const;

private:
    friend class SqliteFile;
    SqliteQuery(class SqliteFile &file, sqlite3_stmt *statement) : file_(file), statement_(statement) {}

    SqliteFile &file_;
    sqlite3_stmt *statement_; // the file's
    int bound_ = 0;
};

class SqliteFile {
public:
    enum class Open { existing, orMake };
    // Its statements wait at most that long for another process's hold of the file.
    SqliteFile(std::string path, Open how, std::chrono::milliseconds patience);
    ~SqliteFile();
    SqliteFile(const SqliteFile &) = delete;
    SqliteFile &operator=(const SqliteFile &) = delete;

    // How long the statements that follow wait.
    void setPatience(std::chrono::milliseconds patience);
    // The text must be a literal: statements are kept by its address.
    SqliteQuery query(const char *sql);
    void run(const char *sql) { query(sql).run(); }
    uint64_t numberOf(const char *sql); // of a statement with one row
    // Throws when another file, or none, has taken the place of the one that is open.
    void checkThere();
    [[noreturn]] void fail() const; // with what the last call said; SqliteBusy when it met another process's hold
    [[noreturn]] void fail(const std::string &why) const;

private:
    std::string lineOf(const std::string &why) const;

    std::string path_;
    sqlite3 *handle_ = nullptr;
    std::map<const char *, sqlite3_stmt *> statements_;
};

// Everything between its begin and commit is written as one; without a commit, nothing is.
class SqliteTransaction {
public:
    // A change waits for the other changes at its begin, so that it cannot fail in the middle.
    enum class Kind { read, change };
    SqliteTransaction(SqliteFile &file, Kind kind);
    ~SqliteTransaction();
    SqliteTransaction(const SqliteTransaction &) = delete;
    SqliteTransaction &operator=(const SqliteTransaction &) = delete;
    void commit();

private:
    SqliteFile &file_;
    bool open_ = true;
};

} // namespace host
