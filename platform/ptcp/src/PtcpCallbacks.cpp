// PtcpCallbacks.cpp - the part of PtcpConnection that ngtcp2 calls.
#include <cstring>
#include <new>

#include "PacketSeal.h"
#include "PtcpConnection.h"

namespace ptcp {

// Nothing may be thrown through a C library.
struct PtcpConnection::Callbacks {
  static PtcpConnection& Self(void* user) { return *static_cast<PtcpConnection*>(user); }
  // 0 or `otherwise`; without memory all is over.
  template <class Function>
  static int Guarded(void* user, int otherwise, Function&& function) {
    try {
      return function(Self(user)) ? 0 : otherwise;
    } catch (const std::bad_alloc&) {
      Self(user).noMemory_ = true;
      return NGTCP2_ERR_CALLBACK_FAILURE;
    }
  }

  static int ClientInitial(ngtcp2_conn*, void* user) {
    return Guarded(user, NGTCP2_ERR_CALLBACK_FAILURE,
                   [](PtcpConnection& self) { return self.handshake_.SendClientHello(); });
  }
  static int ClientInitialSeen(ngtcp2_conn*, const ngtcp2_cid* id, void* user) {
    return Guarded(user, NGTCP2_ERR_CALLBACK_FAILURE, [id](PtcpConnection& self) {
      return self.handshake_.InstallInitialKeys(ngtcp2::FromCid(*id));
    });
  }
  static int Retried(ngtcp2_conn* conn, const ngtcp2_pkt_hd* header, void* user) {
    return ClientInitialSeen(conn, &header->scid, user);
  }
  static int CryptoData(ngtcp2_conn*, ngtcp2::Level level, std::uint64_t, const std::uint8_t* data,
                        std::size_t length, void* user) {
    return Guarded(user, NGTCP2_ERR_CRYPTO, [&](PtcpConnection& self) {
      return self.handshake_.OnMessage(level, {data, length});
    });
  }
  static int HandshakeDone(ngtcp2_conn*, void* user) {
    Self(user).established_ = true;
    return 0;
  }
  static int StreamData(ngtcp2_conn*, std::uint32_t flags, std::int64_t stream, std::uint64_t,
                        const std::uint8_t* data, std::size_t length, void* user, void*) {
    return Guarded(user, NGTCP2_ERR_CALLBACK_FAILURE, [&](PtcpConnection& self) {
      self.OnStreamData(stream, {data, length}, (flags & NGTCP2_STREAM_DATA_FLAG_FIN) != 0);
      return true;
    });
  }
  static int Acknowledged(ngtcp2_conn*, std::int64_t, std::uint64_t offset, std::uint64_t length,
                          void* user, void*) {
    PtcpConnection& self = Self(user);
    self.out_.DropUntil(offset + length);
    // Only the end of the stream comes without bytes. An end that was sent again together with
    // bytes is not told apart from them, and then the peer's close tells.
    if (length == 0) self.finishAcknowledged_ = true;
    return 0;
  }
  static int WindowOpened(ngtcp2_conn*, std::int64_t, std::uint64_t, void* user, void*) {
    Self(user).blocked_ = false;
    return 0;
  }
  // No side of ours ever does that. Nor does one ask to stop sending: the next send fails then.
  static int StreamReset(ngtcp2_conn*, std::int64_t, std::uint64_t, std::uint64_t, void* user,
                         void*) {
    Self(user).violated_ = true;
    return 0;
  }
  static void Random(std::uint8_t* out, std::size_t length, const ngtcp2_rand_ctx* context) {
    static_cast<PtcpHost*>(context->native_handle)->FillRandom(out, length);
  }
  static int NewId(ngtcp2_conn*, ngtcp2_cid* cid, std::uint8_t* token, std::size_t length,
                   void* user) {
    return Guarded(user, NGTCP2_ERR_CALLBACK_FAILURE, [&](PtcpConnection& self) {
      ConnectionId id;
      if (length != kLocalIdSize || !self.AddLocalId(id)) return false;
      *cid = ngtcp2::ToCid(id);
      const Tag reset = self.host_.ResetToken(id);
      std::memcpy(token, reset.data(), reset.size());
      return true;
    });
  }
  static int IdGone(ngtcp2_conn*, const ngtcp2_cid* cid, void* user) {
    Self(user).host_.RemoveId(ngtcp2::FromCid(*cid));
    return 0;
  }
  // The keys stay; the phase is part of the header, so the tag knows it.
  static int NextKeys(ngtcp2_conn*, std::uint8_t* receiveSecret, std::uint8_t* sendSecret,
                      ngtcp2_crypto_aead_ctx* receive, std::uint8_t* receiveIv,
                      ngtcp2_crypto_aead_ctx* send, std::uint8_t* sendIv, const std::uint8_t*,
                      const std::uint8_t*, std::size_t length, void* user) {
    std::memset(receiveSecret, 0, length);
    std::memset(sendSecret, 0, length);
    std::memset(receiveIv, 0, kNonceSize);
    std::memset(sendIv, 0, kNonceSize);
    *receive = Aead(Self(user).handshake_.ReceiveKey());
    *send = Aead(Self(user).handshake_.SendKey());
    return 0;
  }
  static void DeleteAead(ngtcp2_conn*, ngtcp2_crypto_aead_ctx*, void*) {}
  static void DeleteCipher(ngtcp2_conn*, ngtcp2_crypto_cipher_ctx*, void*) {}
  static int PathChallenge(ngtcp2_conn*, std::uint8_t* data, void* user) {
    Self(user).host_.FillRandom(data, NGTCP2_PATH_CHALLENGE_DATALEN);
    return 0;
  }
  static int OtherVersion(ngtcp2_conn*, std::uint32_t, const ngtcp2_cid*, void*) {
    return NGTCP2_ERR_CALLBACK_FAILURE;  // there is one
  }
};

const ngtcp2_callbacks& PtcpConnection::CallbackTable() {
  static const ngtcp2_callbacks table = [] {
    ngtcp2_callbacks all{};
    all.client_initial = &Callbacks::ClientInitial;
    all.recv_client_initial = &Callbacks::ClientInitialSeen;
    all.recv_retry = &Callbacks::Retried;
    all.recv_crypto_data = &Callbacks::CryptoData;
    all.handshake_completed = &Callbacks::HandshakeDone;
    all.encrypt = &Seal;
    all.decrypt = &Unseal;
    all.hp_mask = &NoHeaderMask;
    all.recv_stream_data = &Callbacks::StreamData;
    all.acked_stream_data_offset = &Callbacks::Acknowledged;
    all.extend_max_stream_data = &Callbacks::WindowOpened;
    all.stream_reset = &Callbacks::StreamReset;
    all.rand = &Callbacks::Random;
    all.get_new_connection_id = &Callbacks::NewId;
    all.remove_connection_id = &Callbacks::IdGone;
    all.update_key = &Callbacks::NextKeys;
    all.delete_crypto_aead_ctx = &Callbacks::DeleteAead;
    all.delete_crypto_cipher_ctx = &Callbacks::DeleteCipher;
    all.get_path_challenge_data = &Callbacks::PathChallenge;
    all.version_negotiation = &Callbacks::OtherVersion;
    return all;
  }();
  return table;
}

}  // namespace ptcp
