// UdpPort.h - a UDP socket that many connections share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ConnectionId.h"
#include "PacketKey.h"
#include "PtcpConnection.h"
#include "UdpSocket.h"
#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWInetAddr.h"
#include "keelbase/CAWReferenceControl.h"
#include "keelbase/internal/BufferPool.h"
#include "keelbase/internal/EventLoop.h"
#include "keelbase/internal/IntrusiveList.h"

namespace ptcp {

// A connection, as the port sees it.
class PortUser {
 public:
  virtual const Path& GetPath() const = 0;
  virtual void OnDatagram(Bytes datagram, Time now) = 0;
  virtual void OnReset(Bytes datagram, Time now) = 0;  // it may end a connection of that peer
  virtual void OnBatchEnd() = 0;                       // after one or more of these
  virtual bool MayHaveSent(Bytes packet) const = 0;    // the beginning of one
  virtual void OnPortError(int error) = 0;  // the network says that its packets do not arrive
  virtual void OnPortFree() = 0;            // after WaitUntilFree(), once
  virtual Time LingerDue() const = 0;
  virtual void OnLinger() = 0;

  keelbase::internal::ListPlace<PortUser> placeInLingers;  // the port's own

 protected:
  ~PortUser() = default;
};

// Finds the connection of each datagram by the id that it bears, and drops what comes from
// elsewhere than that connection's peer. Datagrams to be sent are put together to one system call
// (UDP segmentation offload), as far as they go to the same peer. Loop thread only.
class UdpPort final : public keelbase::CAWReferenceControlT<keelbase::CAWMutexThread>,
                      private keelbase::internal::Watcher,
                      private keelbase::internal::LingerTask {
 public:
  using OnStranger = std::function<void(const Path& from, Bytes datagram, Time now)>;

  explicit UdpPort(keelbase::internal::EventLoop& loop);
  ~UdpPort() override;

  // A port of this loop that is bound to `local` already and has no listener; null if there is
  // none.
  static keelbase::CAWAutoPtr<UdpPort> Find(keelbase::internal::EventLoop& loop,
                                            const keelbase::CAWInetAddr& local);

  // As UdpSocket has it.
  int Open(const keelbase::CAWInetAddr* local, const keelbase::CAWInetAddr* peer);
  const keelbase::CAWInetAddr& GetLocalAddr() const { return socket_.GetLocalAddr(); }

  // Whether `peer` is an address of the loopback device, and that takes our longest datagrams.
  bool IsLoopback(const keelbase::CAWInetAddr& peer) const;

  // Who gets first packets that belong to no connection; null: nobody.
  void Listen(OnStranger stranger) { stranger_ = std::move(stranger); }
  bool HasListener() const { return stranger_ != nullptr; }

  bool AddId(const ConnectionId& id, PortUser& user);
  void RemoveId(const ConnectionId& id) { usersById_.erase(id); }
  void Remove(PortUser& user);  // its ids are gone; no call comes to it any more
  Tag ResetToken(const ConnectionId& id) const { return resetKey_.Sign({id.View()}); }

  void Send(const Path& path, Bytes datagram);
  void FlushBatch();
  std::uint64_t Writes() const { return socket_.Writes(); }

  // The system takes no more for now. OnPortFree tells those who wait, once.
  bool IsBlocked() const { return blocked_; }
  void WaitUntilFree(PortUser& user) { waiting_.push_back(&user); }

  void BeginLinger(PortUser& user);  // not twice
  void EndLinger(PortUser& user);

 private:
  struct IdHash {
    std::size_t operator()(const ConnectionId& id) const;
    std::uint64_t seed;  // ids come from outside: who knows this could make them collide
  };

  void OnReady(std::uint32_t events) override;
  int LingerDescriptor() const override { return socket_.Get(); }
  std::uint32_t LingerEvents() const override { return blocked_ ? EPOLLIN | EPOLLOUT : EPOLLIN; }
  keelbase::internal::Clock::Point LingerDeadline() const override;
  void WriteLingering() override;
  void AbandonLinger() override { ServeLingering(); }
  void ServeLingering();

  void ReadErrors();
  bool ReadOneError();
  void NoteTouched(PortUser& user);
  void ReadDatagrams();
  bool ReadOnce(Time now);
  bool ReadFailed(int error);
  void ResumeReading();
  void Dispatch(const Path& from, Bytes datagram, Time now);
  void OnUnknown(const Path& from, const ConnectionId& id, Bytes datagram, Time now);
  void OfferReset(const Path& from, Bytes datagram, Time now);
  void Refuse(const Path& from, Bytes datagram);
  void EndBatch();
  void BecomeFree();
  bool WriteBatch();
  bool IsOfBatch(const Path& path, std::size_t size) const;

  keelbase::internal::EventLoop& loop_;
  UdpSocket socket_;
  bool listed_ = false;  // can be found
  OnStranger stranger_;
  PacketKey resetKey_;
  std::unordered_map<ConnectionId, PortUser*, IdHash> usersById_;
  std::set<std::pair<keelbase::CAWInetAddr, PortUser*>> usersByPeer_;
  // Who got something in this batch. Some stand there twice, those who have gone are null; EndBatch
  // tells each who is left once.
  std::vector<PortUser*> touched_;
  std::vector<PortUser*> waiting_;
  keelbase::internal::IntrusiveList<PortUser, &PortUser::placeInLingers> lingering_;
  PortUser* nextLingering_ = nullptr;  // to be served by ServeLingering

  std::unique_ptr<keelbase::internal::BufferPool::GatherBuffer> batch_;
  Path batchPath_;
  std::size_t batchSize_ = 0;
  std::size_t batchCount_ = 0;
  std::size_t segment_ = 0;
  bool offload_ = true;
  bool blocked_ = false;

  int readFailures_ = 0;  // in a row
  keelbase::internal::Timer readPause_;
};

}  // namespace ptcp
