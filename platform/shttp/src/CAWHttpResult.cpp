// CAWHttpResult.cpp - see CAWHttpResult.h.
#include "shttp/CAWHttpResult.h"

#include <cerrno>

#include "sslutils/CAWSSLError.h"

namespace shttp {

keelbase::CAWString DescribeHttpResult(long result) {
  if (result > 0) return "HTTP status " + std::to_string(result);
  switch (-result) {
    case EINVAL:
      return "the url, the setting, the user name or the password is not good";
    case EPROTONOSUPPORT:
      return "the url's scheme is neither http nor https";
    case EAFNOSUPPORT:
      return "IPv6 addresses are not supported";
    case EADDRNOTAVAIL:
      return "the host name does not resolve";
    case EADDRINUSE:
      return "no port of this machine is free for the connection";
    case EAGAIN:
      return "too many host names are being looked up";
    case ETIMEDOUT:
      return "no connection within the time limit";
    case ETIME:
      return "no answer within the time limit";
    case ECONNABORTED:
      return "the server closed the connection before its answer was whole";
    case EPROTO:
      return "what came is no HTTP answer";
    case EMSGSIZE:
      return "the answer is larger than its limit";
    case ENOTSUP:
      return "the answer is coded in a way that is not understood";
    default:
      return sslutils::DescribeSSLResult(-result);
  }
}

}  // namespace shttp
