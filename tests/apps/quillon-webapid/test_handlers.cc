// A module of handlers, as the web server's workers load it.
#include <stdexcept>

#include <quillon/platform/handler_module.h>
#include <vela/api_runner.h>

#ifndef EMPTY_HANDLERS
void QuillonRegisterHandlers() {
#ifdef THROWING_HANDLERS
  throw std::runtime_error("out of order");
#endif
  VELA::APIRunner::Register("Test.Module", 1, "get",
                            [](const Json::Value&) { return Json::Value("from the module"); });
  VELA::APIRunner::Register("Quillon.MailServer.User", 1, "names",
                            [](const Json::Value&) { return Json::Value("from the module"); });
}
#endif
