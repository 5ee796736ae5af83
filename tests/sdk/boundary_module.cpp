// A module on include/tessmar/module.hpp that tests its boundary rules: what
// it does is chosen by the request's "do" member.
#include <tessmar/module.hpp>

#include <chrono>
#include <stdexcept>
#include <thread>

namespace {

using namespace std::chrono_literals;

struct Boundary {
  tessmar::Reply invoke(const tessmar::Request& request) {
    const std::string_view what = request.string("do");
    if (what == "throw") throw std::runtime_error("the module gave up");
    if (what == "nothing") return tessmar::no_answer;
    if (what == "linger") {
      // Threads still running when the process exits.
      tessmar::spawn([](tessmar::StopToken stop) {
        while (stop.sleep_for(1ms)) {
        }
      });
      tessmar::every(1ms, [] {});
      tessmar::after(1h, [] {});
    }
    return {{"did", what}, {"id", request.id()}};
  }

  // The module's own thread, not one of the SDK's, sends to the page until
  // the handle refuses.
  tessmar::Reply set_callback(const tessmar::Request&, tessmar::Callback page) {
    std::thread([page] {
      while (page.send({{"tick", true}})) std::this_thread::sleep_for(1ms);
    }).detach();
    return {{"registered", bool(page)}};
  }
};

}  // namespace

TESSMAR_MODULE(Boundary)
