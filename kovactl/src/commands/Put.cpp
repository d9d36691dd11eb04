#include <algorithm>
#include <cerrno>
#include <cstring>

#include "../Command.h"
#include "../Md5.h"
#include "../Transfer.h"
#include "kova/messages/Requests.h"

namespace kova::ctl {
namespace {

constexpr const char* kSilence =
    "the camera has this very file already, refused the request (a transfer from this URI runs),\n"
    "or was asked for another such file meanwhile; its log tells";

struct Arguments {
  std::string what;
  std::string uri;
  std::string hash;
  std::string file;
};

// The camera compares digests in lower case only.
bool takeDigest(std::string& hash) {
  std::ranges::transform(hash, hash.begin(),
                         [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return hash.size() == 32 && hash.find_first_not_of("0123456789abcdef") == std::string::npos;
}

Exit run(const Options& options, Arguments arguments, const TransferOptions& transfer) {
  if (arguments.hash.empty() == arguments.file.empty()) {
    return fail(Exit::Usage, "put needs one of --hash and --file");
  }
  if (!arguments.file.empty() && !md5OfFile(arguments.file, arguments.hash)) {
    return fail(Exit::Local, "cannot read " + arguments.file + ": " + std::strerror(errno));
  }
  if (!takeDigest(arguments.hash)) {
    return fail(Exit::Usage, "--hash must be an MD5 digest of 32 hexadecimal digits");
  }
  ipc::messages::PutRequest request;
  request.what(arguments.what);
  request.uri(arguments.uri);
  request.hash(arguments.hash);
  request.timeoutMs(transfer.timeoutMs);
  return runTransfer(options, request, transfer, kSilence);
}

}  // namespace

Action setUpPut(CommandLine& line) {
  auto arguments = std::make_shared<Arguments>();
  line.Argument("WHAT", arguments->what, "logo or sound", {"logo", "sound"});
  line.Argument("URI", arguments->uri, "Where the camera fetches it from, http: or https:");
  line.Option("--hash", arguments->hash, "MD5", "MD5 digest that the file must have");
  line.Option("--file", arguments->file, "LOCAL",
              "Local copy of the file, to take the digest from");
  auto transfer = addTransferOptions(line, 20000, kSilence);
  return
      [arguments, transfer](const Options& options) { return run(options, *arguments, *transfer); };
}

}  // namespace kova::ctl
