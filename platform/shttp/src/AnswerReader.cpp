// AnswerReader.cpp - see AnswerReader.h.
#include "AnswerReader.h"

#include <boost/beast/http/basic_parser.hpp>
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

constexpr std::size_t kFieldMarks = 4;  // ": " and the line's end
// The parser stops a debug build when it is to go on with less than this, the shortest end of an
// answer in chunks: "0\r\n\r\n".
constexpr std::size_t kLeastLine = 5;
constexpr int kLeastStatus = 100;
constexpr int kSwitchingProtocols = 101;

enum class Coding { none, gzip, unknown };

// A quoted text in the header of a chunk that does not end in its line is no answer: the parser
// looks for its end in all that follows, each time anew.
bool IsLineOverYetOpen(std::string_view chunk) {
  if (chunk.substr(0, 2) == "\r\n") chunk.remove_prefix(2);  // of the chunk before
  const bool last =
      chunk.find_first_not_of('0') == chunk.find_first_not_of("0123456789abcdefABCDEF");
  return chunk.find(last ? "\r\n\r\n" : "\r\n") != std::string_view::npos;
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
    eager(true);
    constexpr std::size_t kMost = std::numeric_limits<std::uint32_t>::max();
    header_limit(static_cast<std::uint32_t>(std::min(gathered.headerLeft, kMost - 1) + 1));
    body_limit(std::numeric_limits<std::uint64_t>::max());
  }

  int GetStatus() const { return status_; }

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
  void on_response_impl(int status, string_view reason, int, error_code& code) override {
    status_ = status;
    if (status < kLeastStatus || status == kSwitchingProtocols) return Fail(EPROTO, code);
    CountHeader(reason.size() + kFieldMarks, code);
  }
  void on_field_impl(http::field field, string_view name, string_view value,
                     error_code& code) override {
    if (field == http::field::transfer_encoding && !beast::iequals(value, "chunked"))
      return Fail(ENOTSUP, code);
    if (field == http::field::content_encoding) NoteCoding(value);
    CountHeader(name.size() + value.size() + kFieldMarks, code);
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
  void on_chunk_header_impl(std::uint64_t, string_view, error_code&) override {}
  std::size_t on_chunk_body_impl(std::uint64_t, string_view bytes, error_code& code) override {
    return on_body_impl(bytes, code);
  }
  void on_finish_impl(error_code& code) override {
    if (gathered_.gunzip && !gathered_.gunzip->IsWhole()) Fail(EPROTO, code);
  }

  Gathered& gathered_;
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
  if (joined) {
    bytes = unparsed.append(bytes);
    if (parser_->is_header_done() && bytes.size() < kLeastLine) return 0;
  }
  while (!bytes.empty() && !IsWhole()) {
    if (parser_->is_done()) ExpectAnswer();
    error_code code;
    const std::size_t used = parser_->put({bytes.data(), bytes.size()}, code);
    if (const int error = parser_->ErrorOf(code); error != 0) return error;
    bytes.remove_prefix(used);
    if (code == http::error::need_more) break;
  }
  if (IsWhole()) return 0;
  if (parser_->is_header_done() && IsLineOverYetOpen(bytes)) return EPROTO;
  if (bytes.size() > gathered_->headerLeft) return EMSGSIZE;
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
