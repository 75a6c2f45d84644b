// post_json.cpp - posts JSON to an HTTP server and prints its answer.
//
//   post_json URL JSON [AUTHORITIES]
//
// URL contains /zarn/tcpchannel; AUTHORITIES is a file of certificates to trust with https. Ends
// with 0 when the server has answered with a status below 400. No ZARN_ROOT is needed.
#include <keelbase/CAWThreadManager.h>
#include <shttp/CAWHttpResult.h>
#include <sslutils/CAWSSLManager.h>
#include <zarn/utils/CRestfulClient.h>

#include <cstdio>
#include <cstring>
#include <memory>

int main(int argc, char** argv) {
  if ((argc != 3 && argc != 4) || std::strstr(argv[1], "/zarn/tcpchannel") == nullptr) {
    std::fprintf(stderr,
                 "usage: post_json URL JSON [AUTHORITIES]\n"
                 "       with /zarn/tcpchannel in the url\n");
    return 2;
  }
  if (argc == 4 && sslutils::IAWSSLManager::Instance()->SetTrustedCertificates(argv[3]) != 0) {
    std::fprintf(stderr, "post_json: no certificates in '%s'\n", argv[3]);
    return 1;
  }

  // Answers come on the main thread.
  using keelbase::CAWThreadManager;
  CAWThreadManager* manager = CAWThreadManager::Instance();
  if (manager->AdoptCurrentThread(CAWThreadManager::TT_MAIN) != 0) return 1;
  if (manager->GetThread(CAWThreadManager::TT_NETWORK) == nullptr) {
    std::fprintf(stderr, "post_json: the network thread cannot be started\n");
    return 1;
  }
  keelbase::CAWThread* mainThread = manager->GetThread(CAWThreadManager::TT_MAIN);

  long status = 0;
  zarn::utils::CRestfulClient client;
  client.StartClient(argv[1], "", argv[2], [&](const keelbase::CAWString& answer, long result) {
    status = result;
    if (result > 0)
      std::printf("%ld\n%s\n", result, answer.c_str());
    else
      std::fprintf(stderr, "post_json: %s\n", shttp::DescribeHttpResult(result).c_str());
    mainThread->Stop();
  });
  mainThread->Run();
  return status > 0 && status < 400 ? 0 : 1;
}
