#include "host/http/client.h"
#include "host/http/server.h"
#include "host/jsonrpc/router.h"

#include <gtest/gtest.h>

#include <future>
#include <tuple>

namespace {
// Answers {"sum": a + b}; "block" holds the answer until the test ends; "silent" answers nothing.
struct Sum_Handler : JSON_RPC_Thread_Handler {
  int handle_object_i(std::shared_ptr<JSON_RPC_Channel> chn,
                      std::shared_ptr<JSON_RPC_Object> obj) override {
    auto& req = static_cast<JSON_RPC_Request&>(*obj);
    const JSON_Value& p = req.params();
    if (p.value("block", false))
      released.wait();
    if (p.value("silent", false))
      return 0;
    if (!p.is_object() || !p.contains("a") || !p.contains("b"))
      return chn->send_error(JSON_RPC_INVALID_PARAMS, req.id(), "Need 'a' and 'b'.");
    auto resp = JSON_RPC_Channel::create_response(req);
    resp->set_result({{"sum", p["a"].get<int>() + p["b"].get<int>()}});
    return chn->send(*resp);
  }
  std::shared_future<void> released;
};

TEST(JSON_RPC, ParsesAndAnswersOverHttpWithTheirCodes) {
  // The text, whether it parses, whether as a request.
  const std::tuple<const char*, bool, bool> parsed[] = {
      {R"({"jsonrpc":"2.0","method":"m","params":{"a":1},"id":1})", true, true},
      {R"({"jsonrpc":"2.0","method":"m","params":[1],"id":"x"})", true, true},
      {R"({"jsonrpc":"2.0","method":"m"})", true, true},
      {R"({"jsonrpc":"2.0","result":{},"id":1})", true, false},
      {R"({"jsonrpc":"2.0","error":{"code":-32600,"message":"m"},"id":null})", true, false},
      {R"({"jsonrpc":"1.0","method":"m","id":1})", false, false},
      {R"({"method":"m","id":1})", false, false},
      {R"({"jsonrpc":"2.0","method":5,"id":1})", false, false},
      {R"({"jsonrpc":"2.0","method":"m","params":"x","id":1})", false, false},
      {R"({"jsonrpc":"2.0","method":"m","id":{}})", false, false},
      {R"({"jsonrpc":"2.0","result":1,"error":{"code":1},"id":1})", false, false},
      {R"({"jsonrpc":"2.0","error":{"message":"no code"},"id":1})", false, false},
      {R"([{"jsonrpc":"2.0","method":"m","id":1}])", false, false},
      {R"("just a string")", false, false}};
  int code = 0;
  std::string message;
  for (const auto& [text, ok, request] : parsed) {
    auto obj = parse_json_rpc(JSON_Value::parse(text), code, message);
    ASSERT_EQ(obj != nullptr, ok) << text;
    // What we parse we write back the same way; what we refuse is an invalid request.
    EXPECT_TRUE(obj ? obj->is_request() == request && obj->to_json() == JSON_Value::parse(text)
                    : code == JSON_RPC_INVALID_REQUEST && !message.empty())
        << text;
    code = 0, message.clear();
  }
  auto notification =
      parse_json_rpc(JSON_Value::parse(R"({"jsonrpc":"2.0","method":"m"})"), code, message);
  EXPECT_TRUE(static_cast<JSON_RPC_Request&>(*notification).is_notification());
  std::promise<void> release;
  HTTP_Server server;
  auto router = std::make_shared<JSON_RPC_Router>();
  auto handler = std::make_shared<Sum_Handler>();
  handler->released = release.get_future().share();
  router->add("sum", handler);
  serve_json_rpc(server, "/jsonrpc", router, 1);
  serve_json_rpc(server, "/guarded", router, 1, [](const HTTP_Server_Request& req) {
    const std::string* key = req.headers.get("X-Access-Key");
    return key && *key == "k1";
  });
  ASSERT_TRUE(server.start(HTTP_Server::Options()));
  auto err = [](int code, const char* message, JSON_Value id) -> JSON_Value {
    const JSON_Value error = {{"code", code}, {"message", message}, {"data", nullptr}};
    return {{"jsonrpc", "2.0"}, {"id", id}, {"error", error}};
  };
  const JSON_Value sum = {{"jsonrpc", "2.0"}, {"result", {{"sum", 3}}}, {"id", 9}},
                   refused = {{"error", "unknown access key"}};
  const char* good = R"("method":"sum","params":{"a":1,"b":2},"id":9)";
  // Access key ("" for "/jsonrpc", "-" for "/guarded" without one), the body after its
  // "jsonrpc" member, and the answer.
  const std::tuple<std::string, std::string, JSON_Value> cases[] = {
      {"", good, sum},
      {"", R"("method":"sum","params":{"a":2},"id":"q")", err(-32602, "Need 'a' and 'b'.", "q")},
      {"", R"("method":"nope","id":1)", err(-32601, "Method 'nope' not found.", 1)},
      {"", R"("method":"sum", "id":1,)", err(-32700, "Parse error.", nullptr)},
      {"", R"("result":{},"id":4)", err(-32600, "Expected a request.", 4)},
      {"", R"("method":"sum","params":{"silent":true})", nullptr},
      {"", R"("method":"sum","params":{"block":true},"id":3)",
       err(-32603, "Request timed out.", 3)},
      {"-", good, refused},
      {"k2", good, refused},
      {"k1", good, sum},
      {"", good, sum}};  // still serving after all that
  for (const auto& [key, member, answer] : cases) {
    SCOPED_TRACE(member);
    auto session = HTTP_Session_Factory::create("127.0.0.1", server.port(), false);
    HTTP_Request req(HTTP_Method::POST, key.empty() ? "/jsonrpc" : "/guarded");
    if (!key.empty() && key != "-")
      req.headers().put("X-Access-Key", key);
    HTTP_Response resp;
    const std::string body = R"({"jsonrpc":"2.0",)" + member + "}";
    ASSERT_TRUE(session->send(req, &body, resp));
    EXPECT_EQ(resp.status(), answer.is_null() ? 204 : answer.contains("jsonrpc") ? 200 : 401);
    EXPECT_EQ(resp.body().empty() ? JSON_Value() : JSON_Value::parse(resp.body(), nullptr, false),
              answer);
  }
  release.set_value();
}
}  // namespace
