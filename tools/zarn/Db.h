// Db.h - what the files behind zarn db share.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "DbFile.h"
#include "zarn/utils/CZARNSqliteDB.h"

namespace zarn::tool {

// Why the store cannot hold it as a key or a value; empty when it can.
std::string WhyRefused(const char* what, std::string_view bytes);

// As the library's class takes it: what it is given stands between quotes in its statements.
std::string DoubleQuotes(std::string_view bytes);

// A store that is there; null after a complaint. For those who only read it.
std::unique_ptr<DbFile> OpenToRead(const std::string& path);

// Opens the store, or makes it. False after a complaint.
bool OpenToWrite(const std::string& path, utils::CZARNSqliteDB& db);

// An empty key where it is not the writing of one that has failed.
void ComplainNotWritten(const std::string& path, std::string_view key = "");

int ImportDb(const std::string& path, const std::string& from, bool json);
int ExportDb(const std::string& path, const std::string& to, bool json);

}  // namespace zarn::tool
