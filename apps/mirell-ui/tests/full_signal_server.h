// Our signal server with room for one share, which somebody else's takes before the test starts:
// every share a test makes there is refused "server full". Test code only; needs
// MIRELL_SIGNAL_BINARY.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/tcp_client.h"

namespace mirell::ui {

struct FullSignalServer {
  FullSignalServer()
      : port(testsupport::FreeLoopbackPort()),
        process(std::vector<std::string>{MIRELL_SIGNAL_BINARY, "--listen", "127.0.0.1:" + std::to_string(port),
                                         "--max-tokens", "1"}) {
    for (int i = 0; i < 200 && !testsupport::LoopbackPortAccepts(port); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    // A client nobody here wrote hosts the one share; the server keeps it after it leaves.
    const auto other = testsupport::RunProcess(
        {"/usr/bin/python3", "-c",  // Debian's, with its websockets module.
         "import asyncio, sys, websockets\n"
         "async def main():\n"
         "    async with websockets.connect(sys.argv[1]) as ws:\n"
         "        await ws.send('{\"type\":\"host\",\"token\":\"ABCDEFGHJKMN\",\"secret\":\"s\"}')\n"
         "        print(await ws.recv())\n"
         "asyncio.run(main())\n",
         url()});
    filled = other.out.find("hosting") != std::string::npos;
    error = other.err;
  }
  std::string url() const { return "ws://127.0.0.1:" + std::to_string(port) + "/signal"; }

  std::uint16_t port;
  testsupport::ChildProcess process;
  bool filled = false;  // The one place is taken.
  std::string error;    // What the client said when it could not take it.
};

}  // namespace mirell::ui
