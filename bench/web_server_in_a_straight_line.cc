// web-server-in-a-straight-line HTTP_PORT HTTPS_PORT CERTIFICATE PRIVATE_KEY ANSWER: answers every
// request with the content of the file ANSWER, once it has arrived.
#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace {

std::string answer;

std::string Read(const char* path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

MHD_Result Handle(void* /*context*/, MHD_Connection* connection, const char* /*path*/,
                  const char* /*method*/, const char* /*version*/, const char* data,
                  std::size_t* size, void** request) {
  if (*request == nullptr) {
    *request = new std::string();
    return MHD_YES;
  }
  if (*size > 0) {
    static_cast<std::string*>(*request)->append(data, std::exchange(*size, 0));
    return MHD_YES;
  }
  MHD_Response* const response =
      MHD_create_response_from_buffer(answer.size(), answer.data(), MHD_RESPMEM_PERSISTENT);
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "application/json");
  MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
  const MHD_Result result = MHD_queue_response(connection, MHD_HTTP_OK, response);
  MHD_destroy_response(response);
  return result;
}

void Forget(void* /*context*/, MHD_Connection* /*connection*/, void** request,
            MHD_RequestTerminationCode /*code*/) {
  delete static_cast<std::string*>(std::exchange(*request, nullptr));
}

MHD_Daemon* Serve(unsigned int flags, int port, const std::string& certificate,
                  const std::string& key) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  MHD_OptionItem tls[] = {{MHD_OPTION_HTTPS_MEM_CERT, 0, const_cast<char*>(certificate.c_str())},
                          {MHD_OPTION_HTTPS_MEM_KEY, 0, const_cast<char*>(key.c_str())},
                          {MHD_OPTION_HTTPS_PRIORITIES, 0,
                           const_cast<char*>("NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2")},
                          {MHD_OPTION_END, 0, nullptr}};
  MHD_Daemon* const daemon = MHD_start_daemon(
      flags | MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_ERROR_LOG, 0, nullptr, nullptr, &Handle,
      nullptr, MHD_OPTION_SOCK_ADDR, reinterpret_cast<sockaddr*>(&address),  //
      MHD_OPTION_NOTIFY_COMPLETED, &Forget, nullptr,                         //
      MHD_OPTION_ARRAY, (flags & MHD_USE_TLS) != 0 ? tls : &tls[3], MHD_OPTION_END);
  if (daemon == nullptr) {
    throw std::runtime_error("port " + std::to_string(port));
  }
  return daemon;
}

}  // namespace

int main(int /*argc*/, char** argv) {
  const std::string certificate = Read(argv[3]);
  const std::string key = Read(argv[4]);
  answer = Read(argv[5]);
  try {
    Serve(0, std::stoi(argv[1]), certificate, key);
    Serve(MHD_USE_TLS, std::stoi(argv[2]), certificate, key);
  } catch (const std::exception& error) {
    std::cerr << "web-server-in-a-straight-line: " << error.what() << '\n';
    return EXIT_FAILURE;
  }
  ::pause();
  return EXIT_SUCCESS;
}
