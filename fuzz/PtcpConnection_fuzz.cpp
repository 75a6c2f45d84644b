// PtcpConnection_fuzz.cpp - an open connection, or one that shakes hands, against packets that
// somebody makes: junk, changed ones, and any content under a right tag. Nothing may stop the
// process, more may not be sent to an unproved address than is allowed, and while nobody has the
// keys what arrives is what was sent.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "FuzzInput.h"
#include "SealedPackets.h"
#include "SimulatedPath.h"

namespace {

using namespace ptcp;
using namespace ptcp::test;

void Check(bool condition) {
  if (!condition) std::abort();
}

class Scene {
 public:
  explicit Scene(zarn::test::FuzzInput& input) : input_(input), pair_(1, {}) {
    const std::uint8_t kind = input.Byte();
    attackServer_ = (kind & 1) != 0;
    pair_.watch = [this](Bytes datagram, bool toServer) { Note(datagram, toServer); };
    Check(pair_.Start());
    if ((kind & 2) != 0)
      pair_.StepUntil([] { return false; }, kSecond);  // else still shaking hands
  }

  void Play() {
    for (int actions = 0; actions < 60 && !input_.IsEmpty(); ++actions) {
      Act();
      Judge();
    }
    pair_.StepUntil([] { return false; }, 11 * kSecond);
    Judge();
  }

 private:
  void Note(Bytes datagram, bool toServer) {
    if (datagram.empty()) return;
    (toServer ? toServer_ : toClient_).assign(datagram.begin(), datagram.end());
    if (!toServer) return;
    if ((datagram[0] & 0x80) == 0) shortId_ = *DestinationOf(datagram);
    if (const auto initial = ReadInitial(datagram)) initial_ = *initial;
  }

  PtcpConnection* Attacked() { return attackServer_ ? pair_.server.get() : pair_.client.get(); }
  PtcpConnection* Other() { return attackServer_ ? pair_.client.get() : pair_.server.get(); }
  void Deliver(Bytes datagram) {
    if (attackServer_) return pair_.ToServer(datagram);
    pair_.ToClient(datagram);
  }

  void Act() {
    switch (input_.Byte() % 9) {
      case 0:
        return Deliver(Content());
      case 1:
        return Deliver(Changed());
      case 2:
      case 3:
      case 4:
        return DeliverSealed();
      case 5:
        if (Attacked() != nullptr) Write(*Attacked(), attackedSent_);
        return;
      case 6:
        if (Other() != nullptr) Write(*Other(), otherSent_);
        return;
      case 7:
        pair_.StepUntil([] { return false; }, input_.Byte() * 5 * kMillisecond);
        return;
      default:
        return ReadAndMore();
    }
  }

  Datagram Content() {
    const std::string text = input_.Text();
    return {text.begin(), text.end()};
  }

  Datagram Changed() {
    Datagram datagram = attackServer_ ? toServer_ : toClient_;
    for (int i = input_.Byte() % 4; i > 0 && !datagram.empty(); --i)
      datagram[input_.Byte() * 7U % datagram.size()] ^= input_.Byte();
    return datagram;
  }

  // As the other side would seal it, which has turned bad.
  void DeliverSealed() {
    if (Other() == nullptr || Attacked() == nullptr) return;
    sealed_ = true;
    const std::uint8_t how = input_.Byte();
    number_ += how >> 4;
    const PtcpHandshake& keys = Other()->TEST_Handshake();
    const Datagram frames = Content();
    ConnectionId to = attackServer_ ? shortId_ : initial_.source;
    if (attackServer_ && to.size == 0) to = initial_.destination;
    const ConnectionId from =
        attackServer_
            ? initial_.source
            : ConnectionId(Bytes(toClient_).first(std::min<std::size_t>(8, toClient_.size())));
    switch (how & 3) {
      case 0:
        return Deliver(
            SealLong(LongType::initial, to, from, number_, frames, keys.TEST_InitialSendKey()));
      case 1:
        return Deliver(SealLong(LongType::handshake, to, from, number_, frames, keys.SendKey()));
      default:
        return Deliver(SealShort(to, number_, frames, keys.SendKey(), how & 0x0c));
    }
  }

  void Write(PtcpConnection& side, std::string& all) {
    if (side.IsDead()) return;
    const std::string text(input_.Byte() * std::size_t{40}, static_cast<char>(input_.Byte()));
    side.Send(text.data(), text.size());
    all += text;
    side.Flush(pair_.now);
  }

  void ReadAndMore() {
    const std::uint8_t what = input_.Byte();
    PtcpConnection* const side = Attacked();
    if (side == nullptr) return;
    std::string text(side->Readable(), '\0');
    text.resize(side->Read(text.data(), text.size()));
    attackedReceived_ += text;
    if (what == 1) side->Finish();
    if (what == 2) side->Close(true, pair_.now);
    if (what == 3) pair_.StepUntil([] { return false; }, 15 * kSecond);
    side->Flush(pair_.now);
  }

  void Judge() {
    if (!sealed_) Check(otherSent_.compare(0, attackedReceived_.size(), attackedReceived_) == 0);
    const bool unproved = pair_.server != nullptr && !pair_.server->IsEstablished();
    if (unproved && !sealed_) Check(pair_.bytesToClient <= 3 * pair_.bytesToServer);
    for (const PtcpConnection* one : {pair_.client.get(), pair_.server.get()})
      Check(one == nullptr || one->Readable() <= (std::size_t{8} << 20));
  }

  zarn::test::FuzzInput& input_;
  bool attackServer_ = false;
  bool sealed_ = false;  // somebody has the keys
  Datagram toServer_;
  Datagram toClient_;
  ConnectionId shortId_;
  InitialHeader initial_;
  std::uint32_t number_ = 50;
  std::string attackedSent_;
  std::string otherSent_;
  std::string attackedReceived_;
  SimulatedPair pair_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zarn::test::FuzzInput input(data, size);
  Scene(input).Play();
  return 0;
}
