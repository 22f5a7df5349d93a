#include "cluster/sqlite_file.h"

#include <cstdlib>
#include <sqlite3.h>

namespace host {

SqliteQuery::~SqliteQuery()
{
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
}

SqliteQuery &SqliteQuery::number(uint64_t value)
{
    if (sqlite3_bind_int64(statement_, ++bound_, static_cast<sqlite3_int64>(value)) != SQLITE_OK) {
        file_.fail();
    }
    return *this;
}

SqliteQuery &SqliteQuery::bytes(std::string_view value)
{
    // An empty value is not the null that an empty view may point to.
    const char *data = value.empty() ? "" : value.data();
    if (sqlite3_bind_blob64(statement_, ++bound_, data, value.size(), SQLITE_STATIC) != SQLITE_OK) {
        file_.fail();
    }
    return *this;
}

bool SqliteQuery::next()
{
    const int result = sqlite3_step(statement_);
    if (result != SQLITE_ROW && result != SQLITE_DONE) {
        file_.fail();
    }
    return result == SQLITE_ROW;
}

void SqliteQuery::run()
{
    while (next()) {
    }
}

uint64_t SqliteQuery::numberAt(int column) const
{
    return static_cast<uint64_t>(sqlite3_column_int64(statement_, column));
}

std::string SqliteQuery::bytesAt(int column) const
{
    const void *data = sqlite3_column_blob(statement_, column);
    const auto size = static_cast<size_t>(sqlite3_column_bytes(statement_, column));
    return data == nullptr ? std::string() : std::string(static_cast<const char *>(data), size);
}

SqliteFile::SqliteFile(std::string path, Open how, std::chrono::milliseconds patience) : path_(std::move(path))
{
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | (how == Open::orMake ? SQLITE_OPEN_CREATE : 0);
    if (sqlite3_open_v2(path_.c_str(), &handle_, flags, nullptr) != SQLITE_OK) {
        const std::string why = sqlite3_errmsg(handle_);
        sqlite3_close_v2(handle_);
        fail(why);
    }
    setPatience(patience);
}

SqliteFile::~SqliteFile()
{
    for (const auto &[sql, statement] : statements_) {
        sqlite3_finalize(statement);
    }
    sqlite3_close_v2(handle_);
}

void SqliteFile::setPatience(std::chrono::milliseconds patience)
{
    sqlite3_busy_timeout(handle_, static_cast<int>(patience.count()));
}

SqliteQuery SqliteFile::query(const char *sql)
{
    sqlite3_stmt *&statement = statements_[sql];
    if (statement == nullptr &&
        sqlite3_prepare_v3(handle_, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) != SQLITE_OK) {
        fail();
    }
    return {*this, statement};
}

uint64_t SqliteFile::numberOf(const char *sql)
{
    SqliteQuery found = query(sql);
    if (!found.next()) {
        fail("it is damaged, a record of its own is missing");
    }
    return found.numberAt(0);
}

void SqliteFile::checkThere()
{
    int moved = 0;
    sqlite3_file_control(handle_, "main", SQLITE_FCNTL_HAS_MOVED, &moved);
    if (moved != 0) {
        fail("the file was taken away");
    }
}

void SqliteFile::fail() const
{
    const std::string why = sqlite3_errmsg(handle_);
    if (sqlite3_errcode(handle_) == SQLITE_BUSY) {
        throw SqliteBusy(lineOf(why));
    }
    fail(why);
}

void SqliteFile::fail(const std::string &why) const
{
    throw SqliteError(lineOf(why));
}

std::string SqliteFile::lineOf(const std::string &why) const
{
    return "cluster store " + path_ + ": " + why;
}

SqliteTransaction::SqliteTransaction(SqliteFile &file, Kind kind) : file_(file)
{
    file_.run(kind == Kind::change ? "BEGIN IMMEDIATE" : "BEGIN");
}

SqliteTransaction::~SqliteTransaction()
{
    if (!open_) {
        return;
    }
    try {
        file_.run("ROLLBACK");
    } catch (const SqliteError &) {
        // Nothing is left to undo: some failures end the transaction by themselves.
    }
}

void SqliteTransaction::commit()
{
    file_.run("COMMIT");
    open_ = false;
}

} // namespace host
