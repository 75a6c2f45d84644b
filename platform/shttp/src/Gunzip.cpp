// Gunzip.cpp - see Gunzip.h.
#include "Gunzip.h"

#include <zlib.h>

#include <new>

namespace shttp {

namespace {

constexpr int kGzipOnly = 16;  // added to the window size

int ErrorOf(int result) {
  if (result == Z_OK || result == Z_STREAM_END || result == Z_BUF_ERROR) return 0;
  return result == Z_MEM_ERROR ? ENOMEM : EPROTO;
}

}  // namespace

Gunzip::Gunzip() : stream_(std::make_unique<z_stream_s>()) {
  if (::inflateInit2(stream_.get(), MAX_WBITS + kGzipOnly) != Z_OK) throw std::bad_alloc();
}

Gunzip::~Gunzip() { ::inflateEnd(stream_.get()); }

int Gunzip::Add(std::string_view packed, AnswerBody& out) {
  stream_->next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
  stream_->avail_in = static_cast<uInt>(packed.size());
  for (bool full = false; stream_->avail_in != 0 || full;) {
    // One file may follow another.
    if (whole_ && ::inflateReset(stream_.get()) != Z_OK) return EPROTO;
    const auto [room, space] = out.GetRoom();
    stream_->next_out = reinterpret_cast<Bytef*>(room);
    stream_->avail_out = static_cast<uInt>(space);
    const int result = ::inflate(stream_.get(), Z_NO_FLUSH);
    if (const int error = ErrorOf(result); error != 0) return error;
    const std::size_t count = space - stream_->avail_out;
    if (count > out.GetLeft()) return EMSGSIZE;
    out.Commit(count);
    whole_ = result == Z_STREAM_END;
    full = stream_->avail_out == 0 && !whole_;
  }
  return 0;
}

}  // namespace shttp
