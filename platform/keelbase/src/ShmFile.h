// ShmFile.h - the file behind a CAWShmBase while it is being made or attached.
#pragma once

#include <cstddef>

#include "keelbase/CAWError.h"
#include "keelbase/CAWString.h"
#include "keelbase/internal/FileDescriptor.h"
#include "keelbase/internal/ShmHeader.h"

namespace keelbase::internal {

// Lives for one Create. Holds flock on the file from OpenLocked to its own end, so nobody attaches
// to a segment that is half made.
class ShmFile {
 public:
  explicit ShmFile(const CAWString& path) : path_(path) {}
  ~ShmFile();
  ShmFile(const ShmFile&) = delete;
  ShmFile& operator=(const ShmFile&) = delete;

  // Opens the file, makes it when there is none, and locks it.
  AWResult OpenLocked();

  // Makes the segment when the file is new or was left half made, else checks it.
  AWResult MakeOrCheck(std::size_t size);

  int GetHandle() const { return file_.Get(); }
  std::size_t GetMemorySize() const { return memorySize_; }
  const char* GetError() const { return error_; }

 private:
  AWResult Fail(const char* error, AWResult result = AW_ERROR_FAILURE);
  AWResult Open();
  AWResult Lock();
  bool IsStillNamed() const;
  AWResult Make(std::size_t size);
  AWResult Fill(std::size_t size);
  AWResult Check(const ShmHeader& header, std::size_t fileSize, std::size_t size);
  AWResult RenewLock(ShmHeader header);
  AWResult Store(const ShmHeader& header);

  const CAWString& path_;
  FileDescriptor file_;
  bool locked_ = false;
  std::size_t memorySize_ = 0;
  const char* error_ = "";
};

}  // namespace keelbase::internal
