#include <signal.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include <httplib.h>

/// The management server of the virtual camera. It uses HTTPS, requires client certificates of its
/// authority, serves files (GET /files/NAME) and stores uploads (POST /upload/NAME: the part
/// "payload" in RECEIVED/NAME, the other form fields in RECEIVED/NAME.fields as lines KEY=VALUE).
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxUpload = 64UL * 1024 * 1024;

bool isPlainName(const std::string& name) {
  return !name.empty() && name.front() != '.' && name.find('/') == std::string::npos;
}

/// Writes the file atomically: readers never see a partial file.
void putInPlace(const fs::path& path, const std::string& content) {
  const fs::path partial = path.string() + ".partial";
  std::ofstream(partial, std::ios::binary) << content;
  fs::rename(partial, path);
}

void serveFile(const fs::path& folder, const httplib::Request& request,
               httplib::Response& response) {
  const std::string name = request.matches[1];
  std::ifstream file(folder / name, std::ios::binary);
  if (!isPlainName(name) || !file) {
    response.status = 404;
    return;
  }
  response.set_content(std::string(std::istreambuf_iterator<char>(file), {}),
                       "application/octet-stream");
}

void keepUpload(const fs::path& folder, const httplib::Request& request,
                httplib::Response& response) {
  const std::string name = request.matches[1];
  if (!isPlainName(name) || !request.has_file("payload")) {
    response.status = 400;
    return;
  }
  std::string fields;
  for (const auto& [key, part] : request.files) {
    if (key != "payload") {
      fields += key + '=' + part.content + '\n';
    }
  }
  // Write the payload last: when it exists, the upload is complete.
  putInPlace(folder / (name + ".fields"), fields);
  putInPlace(folder / name, request.get_file_value("payload").content);
}

int usage() {
  std::fputs(
      "usage: kova_manager CERTIFICATE KEY CLIENT_CA FILES RECEIVED PORT_FILE\n"
      "Serves https://localhost:PORT/ until SIGTERM and writes PORT to PORT_FILE.\n",
      stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 7) {
    return usage();
  }
  const fs::path files = argv[4];
  const fs::path received = argv[5];
  // Before any thread starts: all threads inherit the mask, so only sigwait() takes these signals.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);

  httplib::SSLServer server(argv[1], argv[2], argv[3]);
  server.set_payload_max_length(kMaxUpload);
  server.Get(R"(/files/([^/]+))",
             [&](const auto& request, auto& response) { serveFile(files, request, response); });
  server.Post(R"(/upload/([^/]+))", [&](const auto& request, auto& response) {
    keepUpload(received, request, response);
  });
  server.set_logger([](const auto& request, const auto& response) {
    std::printf("%s %s %d\n", request.method.c_str(), request.target.c_str(), response.status);
    std::fflush(stdout);
  });
  const int port = server.is_valid() ? server.bind_to_any_port("127.0.0.1") : -1;
  if (port < 0) {
    std::fputs("kova_manager: cannot serve with these certificates\n", stderr);
    return 1;
  }
  putInPlace(argv[6], std::to_string(port) + '\n');
  std::thread waiter([&] {
    int signal = 0;
    sigwait(&stop, &signal);
    server.stop();
  });
  const bool served = server.listen_after_bind();
  waiter.join();
  return served ? 0 : 1;
}
