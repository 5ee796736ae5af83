// The C++ way to write a client module: a class with `invoke` (and, if the
// module takes callbacks, `set_callback`) and one registration macro.
//
//     #include <tessmar/module.hpp>
//
//     struct Hello {
//       tessmar::Reply invoke(const tessmar::Request& request) {
//         return {{"hello", request.origin()}};
//       }
//     };
//     TESSMAR_MODULE(Hello)
//
// What the macro takes care of (the C contract is include/tessmar/module.h):
//   - Initialize is the library's one exported symbol; it creates the module
//     object, fills the entry table and leaves SetCallback empty when the
//     class has no `set_callback` (the host then answers an empty reply).
//   - Replies are JSON written by RapidJSON and handed over in the host's
//     memory; returning `tessmar::no_answer` (or `{}`) answers "no answer".
//   - An exception leaving `invoke`, `set_callback`, the constructor or a
//     task never reaches the host: the request gets "no answer" and the
//     exception's text goes to stderr.
//   - Threads: `tessmar::after`, `tessmar::every` and `tessmar::spawn` run
//     code on threads the SDK owns. They are stopped and joined when the
//     host calls Terminate and, if it never does, when the process exits,
//     before the module object is destroyed.
//   - A `tessmar::Callback` may be copied to and used from any thread. Once
//     Terminate has begun it sends nothing and returns false.
//
// `invoke` and `set_callback` are called on the host's request thread, one
// request at a time. Code run by `after`, `every` and `spawn` runs on other
// threads: guard what it shares with `invoke`.
//
// Dependencies: json-parser (reading requests) and RapidJSON (writing
// replies), both brought by the CMake target Tessmar::Module. Build the
// module with tessmar_add_module(), which gives it hidden visibility: each
// module then has its own copy of the state below.
#ifndef TESSMAR_MODULE_HPP
#define TESSMAR_MODULE_HPP

#include <json.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <initializer_list>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <utility>

#include "tessmar/module.h"

namespace tessmar {

// ---------------------------------------------------------------------------
// JSON values for replies and callbacks

struct Member;

// One JSON value, written with RapidJSON when it is made: a string, a number,
// a boolean, null, an object ({{"name", value}, ...}), an array
// (tessmar::Value::array({...})) or a RapidJSON value of your own.
class Value {
 public:
  Value(std::nullptr_t) : json_("null") {}
  Value(bool flag) : json_(flag ? "true" : "false") {}
  template <typename Integer,
            typename = std::enable_if_t<std::is_integral_v<Integer> &&
                                        !std::is_same_v<Integer, bool>>>
  Value(Integer number) {
    Write([number](Writer& writer) {
      if constexpr (std::is_signed_v<Integer>) {
        writer.Int64(static_cast<std::int64_t>(number));
      } else {
        writer.Uint64(static_cast<std::uint64_t>(number));
      }
    });
  }
  Value(double number) {
    Write([number](Writer& writer) { writer.Double(number); });
  }
  Value(const char* text) : Value(std::string_view(text ? text : "")) {}
  Value(const std::string& text) : Value(std::string_view(text)) {}
  Value(std::string_view text) {
    Write([text](Writer& writer) {
      writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
    });
  }
  // An object; members are written in the order given.
  inline Value(std::initializer_list<Member> members);
  // Any RapidJSON value, a rapidjson::Document included.
  template <typename Encoding, typename Allocator>
  Value(const rapidjson::GenericValue<Encoding, Allocator>& value) {
    Write([&value](Writer& writer) { value.Accept(writer); });
  }

  static Value array(std::initializer_list<Value> items) {
    return Value([items](Writer& writer) {
      writer.StartArray();
      for (const Value& item : items) item.WriteTo(writer);
      writer.EndArray();
    });
  }

  // The JSON text.
  const std::string& json() const { return json_; }

 private:
  using Writer = rapidjson::Writer<rapidjson::StringBuffer>;
  friend struct Member;

  template <typename Fill>
  explicit Value(Fill fill, std::enable_if_t<std::is_invocable_v<Fill, Writer&>,
                                             int> = 0) {
    Write(fill);
  }
  template <typename Fill>
  void Write(const Fill& fill) {
    rapidjson::StringBuffer buffer;
    Writer writer(buffer);
    fill(writer);
    json_.assign(buffer.GetString(), buffer.GetSize());
  }
  void WriteTo(Writer& writer) const {
    // The text came from a Writer already; its type only decides the comma
    // and colon bookkeeping, which is the same for every value type.
    writer.RawValue(json_.data(), json_.size(), rapidjson::kObjectType);
  }

  std::string json_;
};

// One member of an object: {"name", value}.
struct Member {
  std::string_view name;
  Value value;
};

inline Value::Value(std::initializer_list<Member> members) {
  Write([members](Writer& writer) {
    writer.StartObject();
    for (const Member& member : members) {
      writer.Key(member.name.data(),
                 static_cast<rapidjson::SizeType>(member.name.size()));
      member.value.WriteTo(writer);
    }
    writer.EndObject();
  });
}

// What `invoke` and `set_callback` return: a JSON value, or no answer.
class Reply {
 public:
  Reply() = default;  // no answer
  Reply(Value value) : json_(value.json()), answered_(true) {}
  Reply(std::initializer_list<Member> members) : Reply(Value(members)) {}

  bool answered() const { return answered_; }
  const std::string& json() const { return json_; }

 private:
  std::string json_;
  bool answered_ = false;
};

// "No answer": the page gets the status word FALSE (for `invoke`) or an
// empty reply (for `set_callback`).
inline const Reply no_answer{};

// ---------------------------------------------------------------------------
// Requests

// One request as the host passed it. Members are looked up in the top-level
// object of the request text, first match wins, as the host does.
class Request {
 public:
  Request(const char* origin, const char* id, const char* text,
          const char* tabid = nullptr)
      : origin_(origin ? origin : ""),
        id_(id ? id : ""),
        text_(text ? text : ""),
        tabid_(tabid) {}
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  // The page's origin, as the browser extension gave it.
  std::string_view origin() const { return origin_; }
  // The request's "id".
  std::string_view id() const { return id_; }
  // The page's tab: the host's argument for "setcallback", else the
  // request's "tabid" member.
  std::string_view tabid() const {
    if (tabid_ != nullptr) return tabid_;
    return string("tabid");
  }
  // The name of the page's callback function, the "callback" member.
  std::string_view callback() const { return string("callback"); }
  // The whole request text.
  std::string_view text() const { return text_; }

  // A member of the request, or null when it is absent.
  const json_value* member(std::string_view name) const {
    const json_value* root = Root();
    if (root == nullptr || root->type != json_object) return nullptr;
    for (unsigned i = 0; i < root->u.object.length; ++i) {
      const json_object_entry& entry = root->u.object.values[i];
      if (std::string_view(entry.name, entry.name_length) == name) {
        return entry.value;
      }
    }
    return nullptr;
  }
  // A string member, or "" when it is absent or not a string.
  std::string_view string(std::string_view name) const {
    const json_value* value = member(name);
    if (value == nullptr || value->type != json_string) return {};
    return std::string_view(value->u.string.ptr, value->u.string.length);
  }

 private:
  struct Free {
    void operator()(json_value* value) const { json_value_free(value); }
  };
  // Parsed on first use; requests that read only arguments never are.
  const json_value* Root() const {
    if (!parsed_) {
      parsed_ = true;
      root_.reset(json_parse(text_.data(), text_.size()));
    }
    return root_.get();
  }

  std::string_view origin_, id_, text_;
  const char* tabid_;
  mutable bool parsed_ = false;
  mutable std::unique_ptr<json_value, Free> root_;
};

// ---------------------------------------------------------------------------
// Callbacks and threads

namespace detail {

// Writes one line about an exception that the SDK stopped at the boundary.
inline void Report(const char* where) noexcept {
  const char* what = "an exception of unknown type";
  try {
    throw;
  } catch (const std::exception& error) {
    what = error.what();
  } catch (...) {
  }
  std::fprintf(stderr, "tessmar module: %s: %s; no answer\n", where, what);
}

// Runs `task`, reporting an exception instead of letting it escape.
template <typename Task>
void Guarded(const char* where, Task&& task) noexcept {
  try {
    task();
  } catch (...) {
    Report(where);
  }
}

// Stops a thread's work: set once, then every wait returns at once.
class StopState {
 public:
  bool stop_requested() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return stopped_;
  }
  void request_stop() {
    std::lock_guard<std::mutex> lock(mutex_);
    stopped_ = true;
    wake_.notify_all();
  }
  // Waits until `deadline`; false when stopped first.
  bool wait_until(std::chrono::steady_clock::time_point deadline) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return !wake_.wait_until(lock, deadline, [this] { return stopped_; });
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable wake_;
  bool stopped_ = false;
};

}  // namespace detail

// Handed to code run by tessmar::spawn: tells it when to stop.
class StopToken {
 public:
  explicit StopToken(std::shared_ptr<const detail::StopState> state)
      : state_(std::move(state)) {}
  bool stop_requested() const { return state_->stop_requested(); }
  // Sleeps for `duration`; false when the module is stopping meanwhile.
  template <typename Rep, typename Period>
  bool sleep_for(std::chrono::duration<Rep, Period> duration) const {
    return state_->wait_until(
        std::chrono::steady_clock::now() +
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            duration));
  }

 private:
  std::shared_ptr<const detail::StopState> state_;
};

namespace detail {

// The module's lifetime: the host's services, the module object and the
// threads the SDK runs for it. One per module library.
class Runtime {
 public:
  static Runtime& Get() {
    // Created by Initialize, after the library's own static objects, so it
    // is destroyed before them at exit.
    static Runtime runtime;
    return runtime;
  }
  Runtime(const Runtime&) = delete;
  Runtime& operator=(const Runtime&) = delete;
  // The process is exiting without Terminate.
  ~Runtime() { Stop(); }

  void Start(std::function<void()> destroy_module) {
    std::lock_guard<std::mutex> lock(mutex_);
    destroy_module_ = std::move(destroy_module);
    stop_ = std::make_shared<StopState>();
  }

  void SetHost(QXHostFuncs* host) {
    std::unique_lock<std::shared_mutex> lock(host_mutex_);
    host_ = host;
  }

  // Stops and joins every thread, then destroys the module object. Tasks not
  // yet run are dropped: nobody waits for their answers any more.
  void Stop() {
    std::list<std::thread> threads;
    std::shared_ptr<StopState> stop;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop = stop_;
      threads.swap(threads_);
      timer_thread_ = nullptr;
    }
    if (stop) stop->request_stop();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      timer_wake_.notify_all();
    }
    for (std::thread& thread : threads) {
      // A task that stops its own module cannot wait for itself.
      if (thread.get_id() == std::this_thread::get_id()) {
        thread.detach();
      } else if (thread.joinable()) {
        thread.join();
      }
    }
    {
      std::unique_lock<std::shared_mutex> lock(host_mutex_);
      host_ = nullptr;
    }
    std::function<void()> destroy;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      destroy.swap(destroy_module_);
      tasks_.clear();
    }
    if (destroy) Guarded("destructor", destroy);
  }

  // Calls `send` with the host's services while the module is loaded;
  // false when it is not.
  template <typename Send>
  bool WithHost(const Send& send) const {
    std::shared_lock<std::shared_mutex> lock(host_mutex_);
    if (host_ == nullptr) return false;
    return send(*host_);
  }

  char* CopyForHost(const std::string& text) const {
    void* block = nullptr;
    {
      std::shared_lock<std::shared_mutex> lock(host_mutex_);
      block = host_ != nullptr ? host_->Alloc(text.size() + 1)
                               : std::malloc(text.size() + 1);
    }
    if (block != nullptr) std::memcpy(block, text.c_str(), text.size() + 1);
    return static_cast<char*>(block);
  }
  void FreeFromHost(char* text) const {
    std::shared_lock<std::shared_mutex> lock(host_mutex_);
    if (host_ != nullptr) {
      host_->Free(text);
    } else {
      std::free(text);
    }
  }

  // Runs `task` on the timer thread at `due`, again every `period` when it
  // is non-zero. Ignored once the module is stopping.
  void Schedule(std::chrono::steady_clock::time_point due,
                std::chrono::steady_clock::duration period,
                std::function<void()> task) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!stop_ || stop_->stop_requested()) return;
    // Equal times keep their order: a multimap inserts after equal keys.
    tasks_.emplace(due, Task{period, std::move(task)});
    if (timer_thread_ == nullptr) {
      threads_.emplace_back([this, stop = stop_] { RunTimer(stop); });
      timer_thread_ = &threads_.back();
    }
    timer_wake_.notify_all();
  }

  void Spawn(std::function<void(StopToken)> body) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!stop_ || stop_->stop_requested()) return;
    threads_.emplace_back([body = std::move(body), stop = stop_] {
      Guarded("thread", [&] { body(StopToken(stop)); });
    });
  }

 private:
  Runtime() = default;

  struct Task {
    std::chrono::steady_clock::duration period;
    std::function<void()> run;
  };

  void RunTimer(const std::shared_ptr<StopState>& stop) {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stop->stop_requested()) {
      if (tasks_.empty()) {
        timer_wake_.wait(lock);
        continue;
      }
      const auto due = tasks_.begin()->first;
      if (std::chrono::steady_clock::now() < due) {
        timer_wake_.wait_until(lock, due);
        continue;
      }
      Task task = std::move(tasks_.begin()->second);
      tasks_.erase(tasks_.begin());
      // Never run module code, which may call into the host, while holding
      // the lock.
      lock.unlock();
      Guarded("task", task.run);
      lock.lock();
      if (task.period.count() > 0 && !stop->stop_requested()) {
        tasks_.emplace(due + task.period, std::move(task));
      }
    }
  }

  mutable std::shared_mutex host_mutex_;
  QXHostFuncs* host_ = nullptr;

  std::mutex mutex_;
  std::condition_variable timer_wake_;
  std::shared_ptr<StopState> stop_;
  std::function<void()> destroy_module_;
  std::multimap<std::chrono::steady_clock::time_point, Task> tasks_;
  std::list<std::thread> threads_;
  std::thread* timer_thread_ = nullptr;
};

}  // namespace detail

// Where unsolicited replies for one page go: its tab and the name of its
// callback function. Copy it freely; any thread may send while the module
// is loaded.
class Callback {
 public:
  Callback() = default;
  Callback(std::string tabid, std::string name)
      : tabid_(std::move(tabid)), name_(std::move(name)) {}

  // False when the request named no callback.
  explicit operator bool() const { return !name_.empty(); }
  const std::string& tabid() const { return tabid_; }
  const std::string& name() const { return name_; }

  // Queues `message` for the page. False when there is no callback or the
  // module is no longer loaded (Terminate has begun).
  bool send(const Value& message) const {
    if (name_.empty()) return false;
    return detail::Runtime::Get().WithHost([&](QXHostFuncs& host) {
      // The host copies the texts before it returns.
      return host.SendCallback(tabid_.c_str(), nullptr, name_.c_str(),
                               message.json().c_str()) == 0;
    });
  }

 private:
  std::string tabid_, name_;
};

// Runs `task` once, `delay` from now, on the module's timer thread.
template <typename Rep, typename Period>
void after(std::chrono::duration<Rep, Period> delay,
           std::function<void()> task) {
  const auto step =
      std::chrono::duration_cast<std::chrono::steady_clock::duration>(delay);
  detail::Runtime::Get().Schedule(std::chrono::steady_clock::now() + step,
                                  std::chrono::steady_clock::duration::zero(),
                                  std::move(task));
}

// Runs `task` every `period`, the first time one period from now, until the
// module stops.
template <typename Rep, typename Period>
void every(std::chrono::duration<Rep, Period> period,
           std::function<void()> task) {
  const auto step =
      std::chrono::duration_cast<std::chrono::steady_clock::duration>(period);
  if (step.count() <= 0) return;
  detail::Runtime::Get().Schedule(std::chrono::steady_clock::now() + step,
                                  step, std::move(task));
}

// Runs `body` on a thread of its own. It must return soon after its token
// says stop_requested(); StopToken::sleep_for wakes up at once then.
inline void spawn(std::function<void(StopToken)> body) {
  detail::Runtime::Get().Spawn(std::move(body));
}

// ---------------------------------------------------------------------------
// The entry points behind TESSMAR_MODULE

namespace detail {

template <typename Module, typename = void>
struct TakesCallbacks : std::false_type {};
template <typename Module>
struct TakesCallbacks<
    Module, std::void_t<decltype(std::declval<Module&>().set_callback(
                std::declval<const Request&>(), std::declval<Callback>()))>>
    : std::true_type {};

template <typename Module>
struct Entry {
  static inline Module* instance = nullptr;

  static char* Answer(const char* where, const std::function<Reply()>& call) {
    try {
      const Reply reply = call();
      if (!reply.answered()) return nullptr;
      return Runtime::Get().CopyForHost(reply.json());
    } catch (...) {
      Report(where);
      return nullptr;
    }
  }

  static void SetHostFuncs(QXHostFuncs* host) { Runtime::Get().SetHost(host); }
  static void Terminate() { Runtime::Get().Stop(); }
  static void FreeString(char* text) { Runtime::Get().FreeFromHost(text); }

  static char* Invoke(const char* origin, const char* id, const char* text) {
    return Answer("invoke", [&] {
      const Request request(origin, id, text);
      return Reply(instance->invoke(request));
    });
  }

  static char* SetCallback(const char* origin, const char* id,
                           const char* text, const char* tabid, int) {
    return Answer("set_callback", [&] {
      const Request request(origin, id, text, tabid);
      Callback callback(tabid ? tabid : "", std::string(request.callback()));
      return Reply(instance->set_callback(request, std::move(callback)));
    });
  }

  static int Initialize(QxClientFuncs* funcs) noexcept {
    if (funcs == nullptr) return 1;
    try {
      Runtime& runtime = Runtime::Get();
      runtime.Stop();  // a second Initialize without Terminate starts afresh
      instance = new Module();
      runtime.Start([] {
        delete instance;
        instance = nullptr;
      });
    } catch (...) {
      Report("constructor");
      return 1;
    }
    // The table arrives uncleared: every slot is written.
    *funcs = QxClientFuncs{};
    funcs->SetHostFuncs = SetHostFuncs;
    funcs->Terminate = Terminate;
    funcs->FreeString = FreeString;
    funcs->Invoke = Invoke;
    if constexpr (TakesCallbacks<Module>::value) {
      funcs->SetCallback = SetCallback;
    }
    return 0;
  }
};

}  // namespace detail
}  // namespace tessmar

// Registers `ModuleClass` as this library's module: defines Initialize, the
// one symbol the host looks up. Use it once, at namespace scope.
#define TESSMAR_MODULE(ModuleClass)                                    \
  extern "C" __attribute__((visibility("default"))) int Initialize(    \
      QxClientFuncs* funcs) {                                          \
    return ::tessmar::detail::Entry<ModuleClass>::Initialize(funcs);   \
  }

#endif  // TESSMAR_MODULE_HPP
