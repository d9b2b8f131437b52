#include "host/http/client.h"
#include "host/http/server.h"
#include "host/jsonrpc/router.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

TEST(JSON_RPC, ParsesRequestsAndResponsesAndRefusesTheRest) {
  struct Case {
    const char* text;
    bool ok;
    bool request;
  } cases[] = {
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
      {R"("just a string")", false, false},
  };
  for (const auto& c : cases) {
    int code = 0;
    std::string message;
    auto obj = parse_json_rpc(JSON_Value::parse(c.text), code, message);
    EXPECT_EQ(obj != nullptr, c.ok) << c.text;
    if (obj) {
      EXPECT_EQ(obj->is_request(), c.request) << c.text;
      // What we parse we write back the same way.
      EXPECT_EQ(obj->to_json()["jsonrpc"], "2.0");
    } else {
      EXPECT_EQ(code, JSON_RPC_INVALID_REQUEST);
      EXPECT_FALSE(message.empty());
    }
  }
  int code = 0;
  std::string message;
  auto notification =
      parse_json_rpc(JSON_Value::parse(R"({"jsonrpc":"2.0","method":"m"})"), code, message);
  EXPECT_TRUE(static_cast<JSON_RPC_Request&>(*notification).is_notification());
}

// Answers {"sum": a + b}; "sleep" makes it slow; "silent" answers nothing.
class Sum_Handler : public JSON_RPC_Thread_Handler {
 protected:
  int handle_object_i(std::shared_ptr<JSON_RPC_Channel> chn,
                      std::shared_ptr<JSON_RPC_Object> obj) override {
    if (!chn)
      return -1;
    auto& req = static_cast<JSON_RPC_Request&>(*obj);
    const JSON_Value& p = req.params();
    if (p.value("sleep", 0) > 0)
      std::this_thread::sleep_for(std::chrono::seconds(p["sleep"]));
    if (p.value("silent", false))
      return 0;
    if (!p.is_object() || !p.contains("a") || !p.contains("b"))
      return chn->send_error(JSON_RPC_INVALID_PARAMS, req.id(), "Need 'a' and 'b'.");
    auto resp = JSON_RPC_Channel::create_response(req);
    resp->set_result({{"sum", p["a"].get<int>() + p["b"].get<int>()}});
    return chn->send(*resp);
  }
};

class JSON_RPC_Over_HTTP : public ::testing::Test {
 protected:
  void SetUp() override {
    auto router = std::make_shared<JSON_RPC_Router>();
    router->add("sum", std::make_shared<Sum_Handler>());
    serve_json_rpc(server_, "/jsonrpc", router, 2);
    serve_json_rpc(server_, "/guarded", router, 2, [](const HTTP_Server_Request& req) {
      const std::string* key = req.headers.get("X-Access-Key");
      return key && *key == "k1";
    });
    ASSERT_TRUE(server_.start(HTTP_Server::Options()));
  }

  // The HTTP status and the parsed answer of one POST.
  int post(const std::string& body, JSON_Value& answer, const std::string& path = "/jsonrpc",
           const std::string& key = "") {
    auto session = HTTP_Session_Factory::create("127.0.0.1", server_.port(), false);
    HTTP_Request req(HTTP_Method::POST, path);
    if (!key.empty())
      req.headers().put("X-Access-Key", key);
    HTTP_Response resp;
    if (!session->send(req, &body, resp))
      return 0;
    answer = JSON_Value::parse(resp.body(), nullptr, false);
    return resp.status();
  }

  HTTP_Server server_;
};

TEST_F(JSON_RPC_Over_HTTP, AnswersRequestsAndErrorsWithTheirCodes) {
  JSON_Value a;
  ASSERT_EQ(post(R"({"jsonrpc":"2.0","method":"sum","params":{"a":2,"b":3},"id":9})", a), 200);
  EXPECT_EQ(a["result"]["sum"], 5);
  EXPECT_EQ(a["id"], 9);

  ASSERT_EQ(post(R"({"jsonrpc":"2.0","method":"sum","params":{"a":2},"id":"q"})", a), 200);
  EXPECT_EQ(a["error"]["code"], JSON_RPC_INVALID_PARAMS);
  EXPECT_EQ(a["id"], "q");

  ASSERT_EQ(post(R"({"jsonrpc":"2.0","method":"nope","id":1})", a), 200);
  EXPECT_EQ(a["error"]["code"], JSON_RPC_METHOD_NOT_FOUND);

  ASSERT_EQ(post(R"({"jsonrpc":"2.0","method":"sum", "id":1)", a), 200);
  EXPECT_EQ(a["error"]["code"], JSON_RPC_PARSE_ERROR);
  EXPECT_TRUE(a["id"].is_null());

  ASSERT_EQ(post(R"({"jsonrpc":"2.0","method":"sum","params":7,"id":1})", a), 200);
  EXPECT_EQ(a["error"]["code"], JSON_RPC_INVALID_REQUEST);

  ASSERT_EQ(post(R"({"jsonrpc":"2.0","method":"sum","params":{"silent":true}})", a), 204);

  // Still serving after all that.
  ASSERT_EQ(post(R"({"jsonrpc":"2.0","method":"sum","params":{"a":1,"b":1},"id":2})", a), 200);
  EXPECT_EQ(a["result"]["sum"], 2);
}

TEST_F(JSON_RPC_Over_HTTP, AGuardedPathNeedsTheAccessKey) {
  const std::string body = R"({"jsonrpc":"2.0","method":"sum","params":{"a":1,"b":2},"id":1})";
  JSON_Value a;
  EXPECT_EQ(post(body, a, "/guarded"), 401);
  EXPECT_EQ(post(body, a, "/guarded", "k2"), 401);
  ASSERT_EQ(post(body, a, "/guarded", "k1"), 200);
  EXPECT_EQ(a["result"]["sum"], 3);
}

TEST_F(JSON_RPC_Over_HTTP, AHandlerThatNeverAnswersTimesOut) {
  JSON_Value a;
  ASSERT_EQ(post(R"({"jsonrpc":"2.0","method":"sum","params":{"sleep":4,"a":1,"b":1},"id":3})", a),
            200);
  EXPECT_EQ(a["error"]["code"], JSON_RPC_INTERNAL_ERROR);
  EXPECT_EQ(a["error"]["message"], "Request timed out.");
}

}  // namespace
