// A clock: answers {"now": seconds since 1970}, and a second after a
// "setcallback" request sends the page one more {"now": ...}.
#include <tessmar/module.hpp>

#include <chrono>
#include <ctime>

struct Clock {
  tessmar::Reply invoke(const tessmar::Request&) { return {{"now", std::time(nullptr)}}; }

  tessmar::Reply set_callback(const tessmar::Request&, tessmar::Callback page) {
    tessmar::after(std::chrono::seconds(1), [page] { page.send({{"now", std::time(nullptr)}}); });
    return {{"registered", bool(page)}};
  }
};
TESSMAR_MODULE(Clock)
