// TlsLink.cpp - see TlsLink.h.
#include "TlsLink.h"

#include <functional>
#include <utility>

#include "PtcpSession.h"
#include "SessionLink.h"
#include "sslptcp/CAWSSLPTCPManager.h"
#include "sslutils/CAWSSLManager.h"
#include "zarn/utils/CSSLPTCPSessionBase.h"
#include "zarn/utils/CZARNSSLTCPSessionBase.h"

namespace zarn::tool {

namespace {

using keelbase::AW_OK;
using keelbase::AWResult;

// Names the option whose text is of no use.
std::string Complaint(const char* option, const std::string& text, AWResult result) {
  if (result == AW_OK) return {};
  return fmt::format("{} '{}': {}", option, text, DescribeReason(static_cast<long>(result)));
}

std::string SetIdentity(sslutils::IAWSSLConnectorAcceptor& side, const Security& security) {
  if (security.certificate.empty()) return {};
  std::string problem = Complaint("--key", security.key, side.SetPrivateKey(security.key));
  if (!problem.empty()) return problem;
  return Complaint("--cert", security.certificate, side.SetCertificate(security.certificate));
}

// What TLS is carried by.
struct BelowTls {
  static constexpr const char* kScheme = "tls";
  using Session = utils::CZARNSSLTCPSessionBase;
  using Connector = sslutils::IAWSSLConnector;

  static AWResult Make(keelbase::CAWAutoPtr<Connector>& out) {
    return sslutils::IAWSSLManager::Instance()->CreateSSLConnector(out);
  }
  static AWResult Make(keelbase::CAWAutoPtr<sslutils::IAWSSLAcceptor>& out) {
    return sslutils::IAWSSLManager::Instance()->CreateSSLAcceptor(out);
  }
  static AWResult Connect(Connector& connector, sslutils::IAWSSLConnectionSink* sink,
                          const keelbase::CAWInetAddr& peer, const char* serverName,
                          const keelbase::CAWInetAddr* local) {
    return connector.AsyncConnect(sink, peer, 1, serverName, local);
  }
};

struct BelowPtls {
  static constexpr const char* kScheme = "ptls";
  using Connector = sslptcp::IAWSSLPTCPConnector;

  class Session : public utils::CSSLPTCPSessionBase {
   public:
    AWResult SendMsg(keelbase::CAWMessageBlock& data) { return SendMessage(data); }
    AWResult SetTransportHandle(
        keelbase::CAWAutoPtr<sslutils::IAWSSLTransport>& transport) override {
      std::uint32_t limit = PtcpSession::kTransportQueue;
      transport->SetOption(ptcp::AW_OPT_SEND_QUEUE_LIMIT, &limit);
      return CSSLPTCPSessionBase::SetTransportHandle(transport);
    }
  };

  static AWResult Make(keelbase::CAWAutoPtr<Connector>& out) {
    return sslptcp::IAWSSLPTCPManager::Instance()->CreateConnector(out);
  }
  static AWResult Make(keelbase::CAWAutoPtr<sslutils::IAWSSLAcceptor>& out) {
    return sslptcp::IAWSSLPTCPManager::Instance()->CreateAcceptor(out);
  }
  static AWResult Connect(Connector& connector, sslutils::IAWSSLConnectionSink* sink,
                          const keelbase::CAWInetAddr& peer, const char* serverName,
                          const keelbase::CAWInetAddr* local) {
    return connector.AsyncConnect(sink, peer, serverName, local);
  }
};

template <class Below>
struct OverTls {
  static constexpr const char* kScheme = Below::kScheme;
  using Transport = sslutils::IAWSSLTransport;
  using TransportParameter = sslutils::CAWSSLTransportParameter;

  // Asks for the server by name, and has the operations that the other sessions have.
  class Session : public Below::Session {
    using Base = typename Below::Session;

   public:
    std::string Prepare(const Endpoint& endpoint) {
      security_ = endpoint.security;
      if (security_.serverName.empty())
        security_.serverName = ParseHostPort(endpoint.address)->host;
      auto* manager = sslutils::IAWSSLManager::Instance();
      const std::string& authorities = security_.authorities;
      const AWResult trusted = manager->SetTrustedCertificates(authorities);
      if (trusted != AW_OK) return Complaint("--ca", authorities, trusted);
      const AWResult made = Below::Make(connector_);
      return made == AW_OK ? SetIdentity(*connector_, security_)
                           : DescribeReason(static_cast<long>(made));
    }

    AWResult Connect(const keelbase::CAWInetAddr& peer, keelbase::CAWInetAddr* local) override {
      Close(0);
      return Below::Connect(*connector_, this, peer, security_.serverName.c_str(), local);
    }
    AWResult Close(long reason) override {
      if (connector_) connector_->Cancel(0);
      return Base::Close(reason);
    }

    virtual void OnSend(Transport* transport, TransportParameter* /*parameter*/) {
      Base::OnSSLDataSend(transport);
    }
    void OnSSLDataSend(Transport* transport) final { OnSend(transport, nullptr); }

   private:
    Security security_;
    keelbase::CAWAutoPtr<typename Below::Connector> connector_;  // of a client
  };

  static std::string Prepare(Session& session, const Endpoint& endpoint) {
    return session.Prepare(endpoint);
  }
  static std::string GetSubject(Transport& transport) {
    sslutils::CAWSSLInfo info;
    transport.GetOption(sslutils::AW_OPT_SSL_INFO, &info);
    return info.peerVerified ? info.peerSubject : std::string();
  }
  // What was wrong with one of us will be wrong next time, too.
  static bool IsFinal(long reason) {
    if (reason == sslutils::AW_SSL_ERROR_HANDSHAKE_TIME) return false;
    const bool refused = reason >= sslutils::AW_SSL_ERROR_HANDSHAKE &&
                         reason <= sslutils::AW_SSL_ERROR_CERTIFICATE_INVALID;
    return refused || reason >= sslutils::AW_SSL_ERROR_KEY_UNREADABLE;
  }

  class Listener final : private sslutils::IAWSSLConnectionSink {
   public:
    Listener(std::function<void(Transport*)> accepted, std::function<void(long)> refused)
        : accepted_(std::move(accepted)), refused_(std::move(refused)) {}

    std::string Prepare(const Endpoint& endpoint) {
      const Security& security = endpoint.security;
      const AWResult made = Below::Make(acceptor_);
      if (made != AW_OK) return DescribeReason(static_cast<long>(made));
      std::string problem = SetIdentity(*acceptor_, security);
      if (!problem.empty()) return problem;
      return Complaint("--client-ca", security.clientAuthorities,
                       acceptor_->SetClientAuthorities(security.clientAuthorities, true));
    }
    AWResult Start(const keelbase::CAWInetAddr& address) {
      return acceptor_->StartListen(this, address, 0);
    }
    void Stop() {
      if (acceptor_) acceptor_->StopListen();
      acceptor_ = nullptr;
    }

   private:
    void OnSSLConnected(long reason, Transport* transport) override {
      reason == 0 ? accepted_(transport) : refused_(reason);
    }

    const std::function<void(Transport*)> accepted_;
    const std::function<void(long)> refused_;
    keelbase::CAWAutoPtr<sslutils::IAWSSLAcceptor> acceptor_;
  };
};

}  // namespace

constinit const Scheme kTlsScheme =
    MakeSessionScheme<OverTls<BelowTls>>("tls://host:port likewise", true);
constinit const Scheme kPtlsScheme =
    MakeSessionScheme<OverTls<BelowPtls>>("ptls://host:port likewise", true);

}  // namespace zarn::tool
