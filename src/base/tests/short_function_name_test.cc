#include <gtest/gtest.h>

#include <source_location>
#include <string>

#include "mirell/base/logging.h"

namespace mirell::testing_names {

struct Widget {
  std::string Member() const { return std::source_location::current().function_name(); }
  std::string operator()(int) const { return std::source_location::current().function_name(); }
};

template <typename T>
std::string Templated(T) {
  return std::source_location::current().function_name();
}

inline std::string FromLambda() {
  auto lambda = [] { return std::string(std::source_location::current().function_name()); };
  return lambda();
}

namespace {
std::string Anonymous() { return std::source_location::current().function_name(); }
}  // namespace

}  // namespace mirell::testing_names

namespace {

using mirell::ShortFunctionName;
namespace names = mirell::testing_names;

TEST(ShortFunctionName, MsvcExamples) {
  EXPECT_EQ(ShortFunctionName("void __cdecl mirell::ui::DaemonHost::Poll(void)"),
            "mirell::ui::DaemonHost::Poll");
  EXPECT_EQ(ShortFunctionName(
                "auto __cdecl mirell::ui::CheckForUpdate::<lambda_1>::operator ()(void) const"),
            "mirell::ui::CheckForUpdate::<lambda_1>::operator()");
  EXPECT_EQ(ShortFunctionName("void __cdecl `anonymous-namespace'::Helper(int)"), "Helper");
}

TEST(ShortFunctionName, GccSpellings) {
  EXPECT_EQ(ShortFunctionName("void mirell::ui::DaemonHost::Poll()"),
            "mirell::ui::DaemonHost::Poll");
  EXPECT_EQ(ShortFunctionName("void {anonymous}::Helper(int)"), "Helper");
  EXPECT_EQ(ShortFunctionName("mirell::Foo()::<lambda()>"), "mirell::Foo");
}

TEST(ShortFunctionName, EmptyGivesQuestionMark) {
  EXPECT_EQ(ShortFunctionName(""), "?");
  EXPECT_EQ(ShortFunctionName("`anonymous-namespace'::"), "?");
}

TEST(ShortFunctionName, TemplateArgumentsWithParenthesesAndBlanksAreNotScanned) {
  EXPECT_EQ(ShortFunctionName("void __cdecl mirell::Run<class std::function<void __cdecl(int)> >("
                              "class std::function<void __cdecl(int)>)"),
            "mirell::Run<class std::function<void __cdecl(int)> >");
  EXPECT_EQ(ShortFunctionName("std::vector<int (*)(char)> mirell::Make<a b>(int)"),
            "mirell::Make<a b>");
}

TEST(ShortFunctionName, NoParameterListKeepsTheWholeName) {
  EXPECT_EQ(ShortFunctionName("mirell::Name"), "mirell::Name");
  EXPECT_EQ(ShortFunctionName("int mirell::Name  "), "mirell::Name");
}

TEST(ShortFunctionName, RealGccMemberFunction) {
  const std::string signature = names::Widget{}.Member();
  EXPECT_EQ(ShortFunctionName(signature), "mirell::testing_names::Widget::Member") << signature;
}

TEST(ShortFunctionName, RealGccCallOperator) {
  const std::string signature = names::Widget{}(1);
  EXPECT_EQ(ShortFunctionName(signature), "mirell::testing_names::Widget::operator()")
      << signature;
}

TEST(ShortFunctionName, RealGccTemplate) {
  const std::string signature = names::Templated(3.5);
  EXPECT_EQ(ShortFunctionName(signature), "mirell::testing_names::Templated") << signature;
}

TEST(ShortFunctionName, RealGccLambda) {
  const std::string signature = names::FromLambda();
  // g++ names a lambda after its enclosing function; the log shows that function.
  EXPECT_EQ(ShortFunctionName(signature), "mirell::testing_names::FromLambda") << signature;
}

TEST(ShortFunctionName, RealGccAnonymousNamespace) {
  const std::string signature = names::Anonymous();
  EXPECT_NE(signature.find("{anonymous}::"), std::string::npos) << signature;
  EXPECT_EQ(ShortFunctionName(signature), "mirell::testing_names::Anonymous") << signature;
}

}  // namespace
