// HttpAnswer_fuzz.cpp - what a server sends, in two ways of cutting it into pieces: both make the
// same answer, within its limits.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "AnswerReader.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

struct Answer {
  int error = 0;
  int status = 0;
  std::string body;
};

shttp::CAWHttpLimits Limits() {
  shttp::CAWHttpLimits limits;
  limits.headerBytes = 2000;
  limits.bodyBytes = 100000;
  return limits;
}

Answer Read(std::string_view wire, std::size_t piece, bool bodyless) {
  shttp::AnswerReader reader(Limits(), bodyless);
  Answer answer;
  for (; !wire.empty() && answer.error == 0 && !reader.IsWhole();
       wire.remove_prefix(std::min(piece, wire.size())))
    answer.error = reader.Add(wire.substr(0, piece));
  if (answer.error == 0) answer.error = reader.End();
  if (answer.error != 0) return answer;
  Check(reader.IsWhole());
  answer.status = reader.GetStatus();
  if (const auto body = reader.TakeBody()) answer.body = body->FlattenChained();
  return answer;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const bool bodyless = (data[0] & 0x80U) != 0;
  const std::size_t piece = 1 + (data[0] & 0x7fU);
  const std::string_view wire(reinterpret_cast<const char*>(data) + 1, size - 1);
  const Answer whole = Read(wire, wire.size() + 1, bodyless);
  const Answer pieces = Read(wire, piece, bodyless);
  for (const Answer* one : {&whole, &pieces}) {
    if (one->error != 0) continue;
    Check(one->status >= 200 && one->status <= 999 && one->body.size() <= Limits().bodyBytes);
  }
  // A bad line may be found sooner or later than the end of the connection, but not overlooked.
  Check((whole.error == 0) == (pieces.error == 0));
  if (whole.error == 0) Check(whole.status == pieces.status && whole.body == pieces.body);
  return 0;
}
