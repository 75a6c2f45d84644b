// modules.cpp - two modules of one process that exchange requests and answers.
//
//   modules 7 12        a calculator is asked for the squares of 7 and of 12
//
// Each module knows the other by its thread number alone, and neither ever calls the other: all
// callbacks come on the platform's task thread.
#include <keelbase/CAWMessageBlock.h>
#include <zarn/utils/torv.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <utility>
#include <vector>

namespace {

// Thread numbers: who is meant.
constexpr unsigned short kCalculator = 1;
constexpr unsigned short kAsker = 2;

// Message numbers: what is meant.
constexpr unsigned short kSquare = 1;
constexpr unsigned short kResult = 2;

struct Request {
  long value;
  unsigned short answer_to;  // a sender is not told with its message, so it says where it is
};

struct Result {
  long value;
  long square;
};

// The message is copied, so `content` may be gone as soon as this returns.
template <class Content>
void Send(const Content& content, unsigned short number, unsigned short tno) {
  keelbase::CAWMessageBlock block(reinterpret_cast<const char*>(&content), sizeof content,
                                  keelbase::CAWMessageBlock::borrow);
  zarn::utils::SendTORVMessage(block, number, tno);
}

// False for a message that is no Content.
template <class Content>
bool Read(const keelbase::CAWMessageBlock& block, Content& content) {
  if (block.GetChainedLength() != sizeof content) return false;
  return block.CopyChained(reinterpret_cast<char*>(&content), sizeof content) == sizeof content;
}

class Calculator : public zarn::utils::ITORVSink {
 public:
  void OnInit(void*) override { std::printf("calculator: ready\n"); }
  void OnMessage(keelbase::CAWMessageBlock& block, const unsigned short& number, void*) override {
    Request request;
    if (number != kSquare || !Read(block, request)) return;
    Send(Result{request.value, request.value * request.value}, kResult, request.answer_to);
  }
  void OnUnInit() override { std::printf("calculator: over\n"); }
};

class Asker : public zarn::utils::ITORVSink {
 public:
  explicit Asker(std::vector<long> values) : values_(std::move(values)) {}

  void OnInit(void*) override {
    for (const long value : values_) Send(Request{value, kAsker}, kSquare, kCalculator);
  }
  // Answers come in the order of the requests.
  void OnMessage(keelbase::CAWMessageBlock& block, const unsigned short& number, void*) override {
    Result result;
    if (number != kResult || !Read(block, result)) return;
    std::printf("asker: %ld * %ld = %ld\n", result.value, result.value, result.square);
    if (++answers_ == values_.size()) zarn::utils::NotifyTORVUnInit();
  }
  void OnUnInit() override { over_.set_value(); }

  void Wait() { over_.get_future().wait(); }

 private:
  std::vector<long> values_;
  std::size_t answers_ = 0;
  std::promise<void> over_;
};

// Ends the program if `text` is no number whose square can be told.
long Number(const char* text) {
  constexpr long kMaxNumber = 3037000499;
  long number = 0;
  const char* const end = text + std::strlen(text);
  const auto [last, error] = std::from_chars(text, end, number);
  if (error == std::errc() && last == end && number >= -kMaxNumber && number <= kMaxNumber)
    return number;
  std::fprintf(stderr, "modules: '%s' is not a number from -%ld to %ld\n", text, kMaxNumber,
               kMaxNumber);
  std::exit(2);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: modules NUMBER...\n");
    return 2;
  }
  std::vector<long> values;
  for (int i = 1; i < argc; ++i) values.push_back(Number(argv[i]));
  // Sinks must outlive everything that may still be delivered: to the end of the process.
  static Calculator calculator;
  static Asker asker(std::move(values));
  zarn::utils::TORVInit(&calculator, nullptr);
  zarn::utils::TORVInit(&asker, nullptr);
  zarn::utils::TORVRegisterTno(&calculator, kCalculator, nullptr);
  zarn::utils::TORVRegisterTno(&asker, kAsker, nullptr);
  zarn::utils::NotifyTORVInitEnd();  // everybody is there: let them begin
  asker.Wait();
  return 0;
}
