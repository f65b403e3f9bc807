#include "gst_promise_reply.h"

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

#include "gst_runtime.h"

namespace mirell::transport {
namespace {

using namespace std::chrono_literals;

class GstPromiseReplyTest : public ::testing::Test {
 protected:
  void SetUp() override { EnsureGstreamer(); }
};

std::string ErrorOf(GstPromiseReply& reply, std::chrono::milliseconds limit) {
  try {
    reply.Wait("create-offer", limit);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "no error";
}

TEST_F(GstPromiseReplyTest, AReplyFromAnotherThreadIsReturned) {
  GstPromiseReply reply;
  std::thread replier([promise = reply.promise()] {
    gst_promise_reply(promise, gst_structure_new("reply", "answer", G_TYPE_INT, 42, nullptr));
  });
  const GstStructure* answer = reply.Wait("create-offer", 5s);
  replier.join();
  ASSERT_NE(answer, nullptr);
  int value = 0;
  EXPECT_TRUE(gst_structure_get_int(answer, "answer", &value));
  EXPECT_EQ(value, 42);
}

TEST_F(GstPromiseReplyTest, NoReplyWithinTheLimitThrowsAndALateReplyIsDropped) {
  GstPromiseReply reply;
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(ErrorOf(reply, 200ms), "create-offer: no reply from webrtcbin within 200 ms");
  EXPECT_GE(std::chrono::steady_clock::now() - started, 200ms);
  // webrtcbin answering after the caller gave up finds an interrupted promise.
  gst_promise_reply(reply.promise(), gst_structure_new_empty("late"));
  EXPECT_EQ(gst_promise_wait(reply.promise()), GST_PROMISE_RESULT_INTERRUPTED);
}

TEST_F(GstPromiseReplyTest, AnErrorInTheReplyIsThrownWithItsText) {
  GstPromiseReply reply;
  GError* error = g_error_new_literal(GST_CORE_ERROR, GST_CORE_ERROR_FAILED, "no transceiver");
  gst_promise_reply(reply.promise(), gst_structure_new("reply", "error", G_TYPE_ERROR, error, nullptr));
  g_error_free(error);
  EXPECT_EQ(ErrorOf(reply, 5s), "create-offer: no transceiver");
}

TEST_F(GstPromiseReplyTest, AnInterruptedPromiseHasNoReply) {
  GstPromiseReply reply;
  gst_promise_interrupt(reply.promise());
  EXPECT_EQ(ErrorOf(reply, 5s), "create-offer: no reply from webrtcbin");
}

}  // namespace
}  // namespace mirell::transport
