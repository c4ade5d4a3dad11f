/* SPDX-License-Identifier: Apache-2.0 */
/* database - the calls of SQLite that the history needs; failures are exceptions. One thread at a
   time. */
#pragma once

#include <cstdint>
#include <memory>
#include <sqlite3.h>
#include <stdexcept>
#include <string>
#include <string_view>

namespace history
{

/* The text is SQLite's, with the text of errno if the system refused. */
class database_error : public std::runtime_error
{
  public:
    database_error(int code, const std::string &text) : std::runtime_error(text), code_(code)
    {
    }
    /* SQLite's primary result code. */
    int code() const
    {
        return code_ & 0xff;
    }

  private:
    int code_;
};

class database
{
  public:
    /* Opens an existing file. */
    explicit database(const std::string &path);

    void run(const char *statements);
    /* The first column of the first row; 0 without a row. */
    int64_t number(const char *query);
    sqlite3 *get() const
    {
        return handle_.get();
    }

  private:
    std::unique_ptr<sqlite3, int (*)(sqlite3 *)> handle_;
};

/* A prepared statement. As in SQLite, parameters count from 1 and columns from 0. */
class statement
{
  public:
    statement(database &of, const char *text);

    statement &bind(int parameter, int64_t value);
    /* The bytes must stay valid until the statement is stepped. */
    statement &bind_text(int parameter, std::string_view text);
    statement &bind_blob(int parameter, std::string_view blob);
    /* True while there is a row; after the last row new values can be bound. */
    bool step();
    /* Steps and resets; for a statement without rows. */
    void run();
    /* Ends the statement before its last row. */
    void reset();
    int64_t number(int column) const;
    std::string_view bytes(int column) const; /* valid until the next step */
    std::string text(int column) const
    {
        return std::string(bytes(column));
    }

  private:
    database &of_;
    std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)> handle_;
};

} // namespace history
