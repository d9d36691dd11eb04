#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <span>

#include "../Command.h"
#include "../Transfer.h"
#include "kova/messages/Requests.h"
#include "kova/utils/File.h"
#include "kova/utils/Strings.h"

namespace kova::ctl {
namespace {

constexpr const char* kPutSilence =
    "the camera already has this file, refused the request (a transfer from this URI is running), "
    "or received another request for the same kind of file; see its log";

constexpr const char* kFirmwareSilence =
    "flashing succeeded, is in progress, or was refused; see the camera's log";

struct PutArguments {
  std::string what;
  std::string uri;
  std::string hash;
  std::string file;
};

// The MD5 digest of a file in hexadecimal; false, with `errno` set, when it cannot be read.
bool md5OfFile(const std::string& path, std::string& digest) {
  std::string content;
  if (!utils::File::ReadStringAll(path, content)) {
    return false;
  }
  std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
  unsigned length = 0;
  if (EVP_Digest(content.data(), content.size(), bytes.data(), &length, EVP_md5(), nullptr) != 1) {
    errno = ENOTSUP;
    return false;
  }
  digest = utils::hexadecimal(std::span(bytes).first(length));
  return true;
}

// The camera compares digests in lower case.
bool takeDigest(std::string& hash) {
  std::ranges::transform(hash, hash.begin(),
                         [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return hash.size() == 32 && hash.find_first_not_of("0123456789abcdef") == std::string::npos;
}

ExitStatus run(const Options& options, PutArguments arguments, const TransferOptions& transfer) {
  if (arguments.hash.empty() == arguments.file.empty()) {
    return fail(ExitStatus::Usage, arguments.file.empty()
                                       ? "put needs --file LOCAL, a copy of the file, or --hash MD5"
                                       : "give --hash or --file, not both");
  }
  std::error_code ignored;
  if (std::filesystem::is_directory(arguments.file, ignored)) {
    return fail(ExitStatus::Local, arguments.file + " is a folder");
  }
  if (!arguments.file.empty() && !md5OfFile(arguments.file, arguments.hash)) {
    return fail(ExitStatus::Local, "cannot read " + arguments.file + ": " + std::strerror(errno));
  }
  if (!takeDigest(arguments.hash)) {
    return fail(ExitStatus::Usage,
                "--hash must be an MD5 digest of 32 hexadecimal digits, as md5sum prints it; "
                "or give the file itself with --file");
  }
  ipc::messages::PutRequest request;
  request.what(arguments.what);
  request.uri(arguments.uri);
  request.hash(arguments.hash);
  request.timeoutMs(transfer.timeoutMs);
  return runTransfer(options, request, transfer, kPutSilence);
}

}  // namespace

Action setUpPut(CommandLine& line) {
  auto arguments = std::make_shared<PutArguments>();
  line.argument("WHAT", arguments->what,
                "logo (a picture of at most 1024 by 1024 pixels and 128 KiB) or sound (WAV, PCM, "
                "one channel, 11025 Hz, at most 256 KiB)",
                {"logo", "sound"});
  line.argument("URI", arguments->uri, "Where the camera fetches the file from, http: or https:");
  line.option("--hash", arguments->hash, "MD5", "Expected MD5 digest of the file");
  line.option("--file", arguments->file, "LOCAL",
              "Local copy of the file, to compute the digest from");
  auto transfer = addTransferOptions(line, 20000, kPutSilence);
  return
      [arguments, transfer](const Options& options) { return run(options, *arguments, *transfer); };
}

Action setUpFirmware(CommandLine& line) {
  auto uri = std::make_shared<std::string>();
  line.argument("URI", *uri,
                "Where the camera fetches the image from, http: or https:; at most 50 MiB");
  auto transfer = addTransferOptions(line, 600000, kFirmwareSilence);
  return [uri, transfer](const Options& options) {
    ipc::messages::UpdateFirmwareRequest request;
    request.uri(*uri);
    request.timeoutMs(transfer->timeoutMs);
    return runTransfer(options, request, *transfer, kFirmwareSilence);
  };
}

}  // namespace kova::ctl
