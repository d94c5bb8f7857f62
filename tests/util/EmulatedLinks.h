// Emulated Wi-Fi and cellular links with a probe server behind them.
//
// Runs tools/link-emulator between the test's (private) namespace and the peer of a Netns:
//     wlan0        10.77.1.2 peer 10.77.1.1, fd00:1::2 peer fd00:1::1  <->  wlan0-net   in the peer
//     rmnet_data0  10.77.2.2 peer 10.77.2.1, fd00:2::2 peer fd00:2::1  <->  rmnet0-net  in the peer
// with "default dev wlan0 metric 10" and "default dev rmnet_data0 metric 20" here, in both
// families, so a socket
// bound to either device (SO_BINDTODEVICE) leaves through it, and tools/rtt-responder listening
// on port `port` of every address in the peer (serverAddr and fd99::1 on the peer's lo). A link's
// delay is added to its round-trip time; it can be changed while the test runs.
//
//     if (!Netns::enterPrivate(&why)) GTEST_SKIP() << why;
//     Netns net;
//     ASSERT_TRUE(net.startPeer());
//     EmulatedLinks links;
//     ASSERT_TRUE(links.start(net, 20, 150, &why)) << why;
//     ...
//     ASSERT_TRUE(links.setDelay("wlan0", 300));
//
// The emulator and the responder are children of the test process: stop() (or the destructor)
// must run before anything that waits for every child, such as stopDaemon().
#pragma once

#include <sys/types.h>

#include <string>

#include "util/Netns.h"

class IptablesManager;

namespace mlbd {
namespace test {

class EmulatedLinks {
  public:
    EmulatedLinks() = default;
    ~EmulatedLinks() { stop(); }
    EmulatedLinks(const EmulatedLinks&) = delete;
    EmulatedLinks& operator=(const EmulatedLinks&) = delete;

    // Starts the links with the given one-way delays and the responder, and returns once both
    // serve; false with a reason otherwise. `net` must have its peer started.
    bool start(Netns& net, int wlanDelayMs, int cellDelayMs, std::string* why,
               const std::string& serverAddr = "1.1.1.1", int port = 443);

    // Changes settings of "wlan0" or "rmnet_data0" while they run, e.g. "delay=150ms",
    // "rate=2000kbit loss=1%" (see link-emulator --help); false when refused.
    bool set(const std::string& link, const std::string& settings);
    bool setDelay(const std::string& link, int ms) {
        return set(link, "delay=" + std::to_string(ms) + "ms");
    }

    // Stops and reaps the emulator (the links vanish) and the responder.
    void stop();

  private:
    pid_t emulator_ = -1;
    pid_t responder_ = -1;
    std::string dir_;  // holds the control socket
};

// Programs the ratio cascade for the two emulated links, wlan0 and rmnet_data0, as a ratio
// cycle would; the rule code's result.
int setLinkRatios(IptablesManager* rules, float wlan, float cell);

}  // namespace test
}  // namespace mlbd
