#pragma once

#include <microhttpd.h>

#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <quillon/platform/file_descriptor.h>

#include "login_api.h"
#include "poller.h"
#include "refusal_log.h"
#include "server_certificate.h"
#include "settings.h"
#include "worker_pool.h"

namespace quillon::webapid {

/// HTTP and HTTPS: takes requests off the network and gives each its answer, from the login API or
/// from a worker. Everything happens in the poller's loop.
class HttpFront {
 public:
  using Time = std::chrono::steady_clock::time_point;

  HttpFront(const FrontSettings& settings, Poller& poller, WorkerPool& workers, LoginApi& logins,
            RefusalLog& refusals);
  HttpFront(const HttpFront&) = delete;
  HttpFront& operator=(const HttpFront&) = delete;
  ~HttpFront();

  /// Serves a socket that listens. Throws `std::runtime_error`.
  void Listen(platform::FileDescriptor socket, bool is_tls);
  /// New limits, for what begins from now on; those on connections stay as they were.
  void UseSettings(const FrontSettings& settings) { web_ = settings.web; }
  /// Goes on with what is ready, and closes connections whose time is up.
  void Run(Time now);
  /// Milliseconds until `Run` is due again, at most `longest`.
  int Timeout(int longest) const;
  /// Accepts no more connections, and refuses further requests.
  void BeginToStop();
  /// No request is on its way in, being answered or on its way out.
  bool IsIdle() const;

 private:
  struct Connection;
  struct Request;
  struct Daemon {
    MHD_Daemon* handle;
    int epoll;
    platform::FileDescriptor listener;
    bool is_ready = true;  // something has happened at its sockets
  };

  static MHD_Result Handle(void* front, MHD_Connection* connection, const char* path,
                           const char* method, const char* version, const char* data,
                           std::size_t* size, void** context);
  static void* BeginRequest(void* front, const char* uri, MHD_Connection* connection);
  static void EndRequest(void* front, MHD_Connection* connection, void** request,
                         MHD_RequestTerminationCode code);
  static MHD_Result Admit(void* front, const sockaddr* address, socklen_t length);
  static void NoteConnection(void* front, MHD_Connection* connection, void** context,
                             MHD_ConnectionNotificationCode code);
  static void Log(void* front, const char* format, va_list arguments);
  static MHD_Result TakePart(void* context, MHD_ValueKind kind, const char* key,
                             const char* file_name, const char* type, const char* encoding,
                             const char* data, std::uint64_t offset, std::size_t size);

  void Check(Request& request, const char* path, const char* method);
  void CheckBody(Request& request);
  void TakeData(Request& request, const char* data, std::size_t size);
  void Finish(Request& request);
  void Submit(Request& request);
  void Resume(MHD_Connection* connection);
  void Refuse(Request& request, int status, const char* message);
  MHD_Result Reply(Request& request);
  void CloseOverdue(Time now);
  void SayTooSlow(const Connection& connection);

  platform::Configuration::Web web_;
  Poller& poller_;
  WorkerPool& workers_;
  LoginApi& logins_;
  RefusalLog& refusals_;
  std::vector<Daemon> daemons_;
  // Of both daemons; these two limits stay as they were at the start.
  std::list<Connection> connections_;
  std::unordered_map<std::string, std::size_t> per_network_;
  const std::size_t most_connections_;
  const std::size_t most_per_address_;
  std::size_t buffered_ = 0;  // bytes of bodies that are arriving
  std::size_t leaving_ = 0;   // bytes of answers that are being sent
  bool is_stopping_ = false;
  Time last_check_;
};

}  // namespace quillon::webapid
