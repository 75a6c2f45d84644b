// AnswerReader.cpp - see AnswerReader.h.
#include "AnswerReader.h"

#include <algorithm>
#include <boost/beast/http/basic_parser.hpp>
#include <cctype>
#include <limits>
#include <optional>
#include <string>

#include "AnswerBody.h"
#include "Gunzip.h"

namespace shttp {

namespace beast = boost::beast;
namespace http = boost::beast::http;
using beast::error_code;
using beast::string_view;

namespace {

// The parser stops a debug build when it is to go on with less than this, the shortest end of an
// answer in chunks: "0\r\n\r\n".
constexpr std::size_t kMinLine = 5;
// Of the header of a chunk. That of the last one is read anew with each piece of what follows.
constexpr std::size_t kMaxChunkLine = 1024;
constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kLinesEnd = "\r\n\r\n";
constexpr int kMinStatus = 100;
constexpr int kSwitchingProtocols = 101;

enum class Coding { none, gzip, unknown };

// What the parser waits for to become the header of a chunk: 0, or why it never will. `searched`
// bytes of it were looked at before.
//
// A quoted text that does not end in its line is no answer: the parser looks for its end in all
// that follows, each time anew.
int CheckOpenChunk(std::string_view chunk, std::size_t searched) {
  const std::size_t start = chunk.substr(0, 2) == kLineEnd ? 2 : 0;  // behind the chunk before
  const std::string_view most = chunk.substr(0, kMaxChunkLine + kLineEnd.size());
  if (most.size() > kMaxChunkLine + 1 && most.find(kLineEnd, start) == std::string_view::npos)
    return EMSGSIZE;
  const std::size_t digit = chunk.find_first_not_of('0', start);
  const bool last = digit == std::string_view::npos ||
                    std::isxdigit(static_cast<unsigned char>(chunk[digit])) == 0;
  const std::size_t from = std::max(start, searched - std::min(searched, kMinLine));
  const bool over = chunk.find(last ? kLinesEnd : kLineEnd, from) != std::string_view::npos;
  return over ? EPROTO : 0;
}

}  // namespace

// What is known of the answer beyond the one message that is being parsed.
struct AnswerReader::Gathered {
  explicit Gathered(const CAWHttpLimits& limits)
      : headerLeft(limits.headerBytes), body(limits.bodyBytes) {}

  std::size_t headerLeft;  // what header lines may still take
  std::string unparsed;    // the start of a line
  AnswerBody body;
  std::optional<Gunzip> gunzip;
};

// The parser bounds neither a header that comes in pieces nor what is unpacked, so that is done
// here. What `error_` says is told apart from what the parser itself has found.
class AnswerReader::Parser final : public http::basic_parser<false> {
 public:
  explicit Parser(Gathered& gathered) : gathered_(gathered) {
    constexpr std::size_t kMaxLimit = std::numeric_limits<std::uint32_t>::max();
    header_limit(static_cast<std::uint32_t>(std::min(gathered.headerLeft, kMaxLimit - 1) + 1));
    body_limit(std::numeric_limits<std::uint64_t>::max());
  }

  int GetStatus() const { return status_; }

  // Takes one part of an answer at most: its header, a chunk's header, some of a body.
  std::size_t Put(std::string_view bytes, error_code& code) {
    start_ = bytes.data();
    lines_ = is_header_done() ? nullptr : start_;
    const std::size_t used = put({bytes.data(), bytes.size()}, code);
    if (lines_ != nullptr && ErrorOf(code) == 0)
      CountHeader(static_cast<std::size_t>(start_ + used - lines_), code);
    return used;
  }

  // An errno value for what stopped the parser; 0 when it just waits for more.
  int ErrorOf(const error_code& code) const {
    if (!code || code == http::error::need_more) return 0;
    if (error_ != 0) return error_;
    if (code == http::error::partial_message) return ECONNABORTED;
    return code == http::error::header_limit ? EMSGSIZE : EPROTO;
  }

 private:
  void Fail(int error, error_code& code) {
    error_ = error;
    if (error != 0) code = http::error::bad_value;
  }

  void CountHeader(std::size_t size, error_code& code) {
    if (size > gathered_.headerLeft) return Fail(EMSGSIZE, code);
    gathered_.headerLeft -= size;
  }

  void on_request_impl(http::verb, string_view, string_view, int, error_code&) override {}
  void on_response_impl(int status, string_view, int, error_code& code) override {
    status_ = status;
    if (status < kMinStatus || status == kSwitchingProtocols) Fail(EPROTO, code);
  }
  void on_field_impl(http::field field, string_view, string_view value, error_code& code) override {
    if (field == http::field::transfer_encoding && !beast::iequals(value, "chunked"))
      return Fail(ENOTSUP, code);
    if (field == http::field::content_encoding) NoteCoding(value);
  }
  void NoteCoding(string_view value) {
    if (beast::iequals(value, "identity")) return;
    const bool gzip = beast::iequals(value, "gzip") || beast::iequals(value, "x-gzip");
    coding_ = gzip && coding_ == Coding::none ? Coding::gzip : Coding::unknown;
  }
  // What is known of the body before any of it comes. An answer that is done has none.
  void on_header_impl(error_code& code) override {
    if (is_done()) return;
    const auto length = content_length();
    if (coding_ == Coding::unknown) {
      Fail(ENOTSUP, code);
    } else if (coding_ == Coding::gzip) {
      gathered_.gunzip.emplace();
    } else if (length && *length > gathered_.body.GetLeft()) {
      Fail(EMSGSIZE, code);
    }
  }
  void on_body_init_impl(const boost::optional<std::uint64_t>&, error_code&) override {}
  std::size_t on_body_impl(string_view bytes, error_code& code) override {
    const std::string_view view(bytes.data(), bytes.size());
    Fail(gathered_.gunzip ? gathered_.gunzip->Add(view, gathered_.body)
                          : gathered_.body.Append(view),
         code);
    return bytes.size();
  }
  // Of the last chunk all is there, with the trailers and the empty line behind them.
  void on_chunk_header_impl(std::uint64_t size, string_view extension, error_code& code) override {
    const char* const end = extension.data() + extension.size();
    if (static_cast<std::size_t>(end - start_) > kMaxChunkLine) return Fail(EMSGSIZE, code);
    if (size == 0) lines_ = end + kLinesEnd.size();  // so that the empty line does not count
  }
  std::size_t on_chunk_body_impl(std::uint64_t, string_view bytes, error_code& code) override {
    return on_body_impl(bytes, code);
  }
  void on_finish_impl(error_code& code) override {
    if (gathered_.gunzip && !gathered_.gunzip->IsWhole()) Fail(EPROTO, code);
  }

  Gathered& gathered_;
  const char* start_ = nullptr;  // of the bytes that are being parsed
  const char* lines_ = nullptr;  // where header lines begin among them, if there are any
  int status_ = 0;
  int error_ = 0;
  Coding coding_ = Coding::none;
};

AnswerReader::AnswerReader(const CAWHttpLimits& limits, bool bodyless)
    : gathered_(std::make_unique<Gathered>(limits)), bodyless_(bodyless) {
  ExpectAnswer();
}

AnswerReader::~AnswerReader() = default;

void AnswerReader::ExpectAnswer() {
  parser_ = std::make_unique<Parser>(*gathered_);
  parser_->skip(bodyless_);
}

int AnswerReader::Add(std::string_view bytes) {
  std::string& unparsed = gathered_->unparsed;
  const bool joined = !unparsed.empty();
  std::size_t searched = unparsed.size();
  if (joined) {
    bytes = unparsed.append(bytes);
    if (parser_->is_header_done() && bytes.size() < kMinLine) return 0;
  }
  while (!bytes.empty() && !IsWhole()) {
    if (parser_->is_done()) ExpectAnswer();
    error_code code;
    const std::size_t used = parser_->Put(bytes, code);
    if (const int error = parser_->ErrorOf(code); error != 0) return error;
    bytes.remove_prefix(used);
    if (used != 0) searched = 0;
    if (code == http::error::need_more) break;
  }
  if (IsWhole()) return 0;
  std::size_t lines = bytes.size();  // without that of a chunk, which has a limit of its own
  if (parser_->is_header_done()) {
    if (const int error = CheckOpenChunk(bytes, searched); error != 0) return error;
    lines -= std::min(lines, kMaxChunkLine + kLinesEnd.size());
  }
  if (lines > gathered_->headerLeft) return EMSGSIZE;
  if (joined) {
    unparsed.erase(0, unparsed.size() - bytes.size());
  } else {
    unparsed = bytes;
  }
  return 0;
}

int AnswerReader::End() {
  if (IsWhole()) return 0;
  if (!parser_->got_some() || parser_->is_done() || !gathered_->unparsed.empty())
    return ECONNABORTED;
  error_code code;
  parser_->put_eof(code);
  return parser_->ErrorOf(code);
}

bool AnswerReader::IsWhole() const { return parser_->is_done() && parser_->GetStatus() / 100 != 1; }

int AnswerReader::GetStatus() const { return parser_->GetStatus(); }

std::unique_ptr<keelbase::CAWMessageBlock> AnswerReader::TakeBody() {
  return gathered_->body.Take();
}

}  // namespace shttp
