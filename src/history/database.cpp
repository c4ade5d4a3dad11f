/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: check() turns each result other than success into an exception. */
#include "history/database.h"

#include <cstring>

namespace history
{

[[noreturn]] static void fail(sqlite3 *handle, int code)
{
    std::string text = sqlite3_errstr(code);
    const int system_error = handle == nullptr ? 0 : sqlite3_system_errno(handle);
    const int primary = code & 0xff;
    if (system_error != 0 &&
        (primary == SQLITE_FULL || primary == SQLITE_IOERR || primary == SQLITE_CANTOPEN))
        text += std::string(": ") + std::strerror(system_error);
    throw database_error(code, text);
}

static void check(sqlite3 *handle, int code)
{
    if (code != SQLITE_OK)
        fail(handle, code);
}

static sqlite3 *open_handle(const std::string &path)
{
    sqlite3 *handle = nullptr;
    const int code = sqlite3_open_v2(path.c_str(), &handle,
                                     SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX |
                                         SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_EXRESCODE,
                                     nullptr);
    if (code == SQLITE_OK)
        return handle;
    const int system_error = handle == nullptr ? 0 : sqlite3_system_errno(handle);
    sqlite3_close(handle);
    throw database_error(code, std::string(sqlite3_errstr(code)) + (system_error == 0 ? "" : ": ") +
                                   (system_error == 0 ? "" : std::strerror(system_error)));
}

database::database(const std::string &path) : handle_(open_handle(path), sqlite3_close)
{
}

void database::run(const char *statements)
{
    check(get(), sqlite3_exec(get(), statements, nullptr, nullptr, nullptr));
}

int64_t database::number(const char *query)
{
    statement asked(*this, query);
    return asked.step() ? asked.number(0) : 0;
}

static sqlite3_stmt *prepare(database &of, const char *text)
{
    sqlite3_stmt *handle = nullptr;
    check(of.get(), sqlite3_prepare_v2(of.get(), text, -1, &handle, nullptr));
    return handle;
}

statement::statement(database &of, const char *text)
    : of_(of), handle_(prepare(of, text), sqlite3_finalize)
{
}

auto statement::bind(int parameter, int64_t value) -> statement &
{
    check(of_.get(), sqlite3_bind_int64(handle_.get(), parameter, value));
    return *this;
}

auto statement::bind_text(int parameter, std::string_view text) -> statement &
{
    check(of_.get(), sqlite3_bind_text(handle_.get(), parameter, text.data(),
                                       static_cast<int>(text.size()), SQLITE_STATIC));
    return *this;
}

auto statement::bind_blob(int parameter, std::string_view blob) -> statement &
{
    check(of_.get(), sqlite3_bind_blob(handle_.get(), parameter, blob.data(),
                                       static_cast<int>(blob.size()), SQLITE_STATIC));
    return *this;
}

bool statement::step()
{
    const int code = sqlite3_step(handle_.get());
    if (code == SQLITE_ROW)
        return true;
    sqlite3_reset(handle_.get());
    if (code != SQLITE_DONE)
        fail(of_.get(), code);
    return false;
}

void statement::run()
{
    while (step()) {
    }
}

void statement::reset()
{
    sqlite3_reset(handle_.get());
}

int64_t statement::number(int column) const
{
    return sqlite3_column_int64(handle_.get(), column);
}

std::string_view statement::bytes(int column) const
{
    const auto *data = static_cast<const char *>(sqlite3_column_blob(handle_.get(), column));
    const auto size = static_cast<size_t>(sqlite3_column_bytes(handle_.get(), column));
    return data == nullptr ? std::string_view{} : std::string_view{data, size};
}

} // namespace history
