// SuperJournal.h - what a journal beside an SQLite file must not ask for.
#pragma once

struct sqlite3;

namespace zarn::utils {

// Whether the journal beside the main file of an opened database names a super-journal, as one of a
// transaction over several files does. SQLite deletes the file of that name, whichever it is, once
// it has undone what such a journal holds; no journal of a store has one. To be asked before the
// first statement.
bool NamesSuperJournal(sqlite3* handle);

}  // namespace zarn::utils
