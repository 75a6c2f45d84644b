// CAWHttpResult.h - what became of a request.
#pragma once

#include "keelbase/CAWString.h"
#include "shttp/CAWDefines.h"

namespace shttp {

// A result is the status of the server's answer, 200 to 999, or below 0 when there is none:
//
//   -EINVAL            the url, the setting, the user name or the password is not good
//   -EPROTONOSUPPORT   the url's scheme is neither http nor https
//   -EAFNOSUPPORT      the url's host is an IPv6 address
//   -EADDRNOTAVAIL     the host name does not resolve
//   -EMFILE, -ENFILE   no descriptor is free for the name or the connection
//   -EADDRINUSE        no port of this machine is free for the connection
//   -EAGAIN            too many names are being looked up
//   -ECONNREFUSED, -EHOSTUNREACH, -ENETUNREACH …   the connect failed
//   -ETIMEDOUT         no connection within the time limit, names and TLS included
//   -ETIME             sending or the answer took longer than its time limit
//   -ECONNRESET        the connection was cut
//   -ECONNABORTED      the server closed the connection before its answer was whole
//   -EPROTO            what came is no HTTP answer, or its gzip is damaged
//   -EMSGSIZE          the answer's header or body is larger than its limit
//   -ENOTSUP           the answer is coded in a way that nobody asked for
//   -ENOMEM            out of memory, or the system gives no thread for the lookup of a name
//   -10101 to -10136   minus a reason of sslutils/CAWSSLError.h
//
// A text for people, of any of them. Any thread.
SHTTP_API keelbase::CAWString DescribeHttpResult(long result);

}  // namespace shttp
