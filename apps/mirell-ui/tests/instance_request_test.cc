#include "instance_request.h"

#include <gtest/gtest.h>

#include <string>

namespace mirell::ui {
namespace {

TEST(InstanceRequest, EachKindComesBackAsItWent) {
  InstanceRequest share;
  share.kind = InstanceRequest::Kind::kShare;
  share.share.window_title = "Moving \"Demo\" ✓";
  share.share.admit_everyone = true;
  share.share.is_public = true;
  const auto decoded = DecodeRequest(EncodeRequest(share));
  ASSERT_TRUE(decoded.has_value());
  EXPECT_EQ(decoded->kind, InstanceRequest::Kind::kShare);
  EXPECT_EQ(decoded->share.window_title, "Moving \"Demo\" ✓");
  EXPECT_TRUE(decoded->share.admit_everyone);
  EXPECT_TRUE(decoded->share.is_public);
  EXPECT_FALSE(decoded->share.monitor.has_value());
  EXPECT_EQ(EncodeRequest(share).find('\n'), std::string::npos) << "one line";

  InstanceRequest monitor;
  monitor.kind = InstanceRequest::Kind::kShare;
  monitor.share.monitor = 2;
  EXPECT_EQ(DecodeRequest(EncodeRequest(monitor))->share.monitor, std::optional<std::uint32_t>(2));
  EXPECT_FALSE(DecodeRequest(EncodeRequest(monitor))->share.is_public) << "not public unless asked";

  for (const auto kind : {InstanceRequest::Kind::kAdmit, InstanceRequest::Kind::kDeny}) {
    InstanceRequest decision;
    decision.kind = kind;
    decision.peer = "c12";
    const auto back = DecodeRequest(EncodeRequest(decision));
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(back->kind, kind);
    EXPECT_EQ(back->peer, "c12");
  }
  EXPECT_EQ(DecodeRequest(EncodeRequest(InstanceRequest{}))->kind, InstanceRequest::Kind::kShow);
  EXPECT_EQ(DecodeRequest("")->kind, InstanceRequest::Kind::kShow) << "an empty line asks to show";
}

TEST(InstanceRequest, WhatIsNotARequestIsRefused) {
  for (const char* line : {"x", "[]", "{}", R"({"do":1})", R"({"do":"explode"})", R"({"do":"admit"})",
                           R"({"do":"admit","peer":""})", R"({"do":"share"})",
                           R"({"do":"share","window":"a","monitor":1})", R"({"do":"share","monitor":-1})",
                           R"({"do":"share","monitor":1000})", R"({"do":"share","window":""})",
                           R"({"do":"share","window":"a","admit_everyone":"yes"})",
                           R"({"do":"share","window":"a","public":1})"}) {
    EXPECT_FALSE(DecodeRequest(line).has_value()) << line;
  }
  EXPECT_FALSE(DecodeRequest(R"({"do":"show","x":")" + std::string(kMaxInstanceLine, 'a') + "\"}").has_value());
}

TEST(InstanceRequest, RepliesCarryTheirWords) {
  const auto reply = DecodeReply(EncodeReply({false, "no viewer c1 is waiting to be let in"}));
  ASSERT_TRUE(reply.has_value());
  EXPECT_FALSE(reply->ok);
  EXPECT_EQ(reply->text, "no viewer c1 is waiting to be let in");
  EXPECT_TRUE(DecodeReply(EncodeReply({true, "http://h/s/X"}))->ok);
  EXPECT_FALSE(DecodeReply("{\"ok\":true}").has_value());
  EXPECT_FALSE(DecodeReply("not json").has_value());
}

TEST(InstanceRequest, TheCommandLineSaysWhatToAsk) {
  CommandLine line;
  EXPECT_EQ(RequestOf(line).kind, InstanceRequest::Kind::kShow);
  line.share.monitor = 0;
  EXPECT_EQ(RequestOf(line).kind, InstanceRequest::Kind::kShare);
  CommandLine admit;
  admit.admit = "c3";
  EXPECT_EQ(RequestOf(admit).kind, InstanceRequest::Kind::kAdmit);
  EXPECT_EQ(RequestOf(admit).peer, "c3");
}

}  // namespace
}  // namespace mirell::ui
