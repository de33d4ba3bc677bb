// The explorer's arguments: none, one link, one JSON path, or too many.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "commandline.h"

namespace {

struct CAPTURE {
  char* buf = nullptr;
  size_t len = 0;
  FILE* f;
  CAPTURE() { f = open_memstream(&buf, &len); }
  std::string text() {
    fflush(f);
    return std::string(buf, len);
  }
  ~CAPTURE() {
    fclose(f);
    free(buf);
  }
};

COMMANDLINE run(std::initializer_list<const char*> args, std::string* out) {
  std::vector<char*> argv;
  for (const char* a : args) argv.push_back(const_cast<char*>(a));
  argv.push_back(nullptr);
  CAPTURE c;
  COMMANDLINE cmd = readcommandline(static_cast<int>(args.size()), argv.data(), c.f);
  *out = c.text();
  return cmd;
}

}  // namespace

TEST(CommandLine, NoArgumentIsTheStartView) {
  std::string out;
  COMMANDLINE cmd = run({"orvanta"}, &out);
  EXPECT_EQ(cmd.kind, COMMAND_NONE);
  EXPECT_EQ(cmd.argument, nullptr);
  EXPECT_EQ(out, "");
}

TEST(CommandLine, OneLink) {
  std::string out;
  COMMANDLINE cmd = run({"orvanta", "ovt://?re=-0.75&im=0.1"}, &out);
  EXPECT_EQ(cmd.kind, COMMAND_LINK);
  EXPECT_STREQ(cmd.argument, "ovt://?re=-0.75&im=0.1");
  EXPECT_EQ(out, "");
}

TEST(CommandLine, OneJsonPath) {
  std::string out;
  COMMANDLINE cmd = run({"orvanta", "/home/u/seahorse.json"}, &out);
  EXPECT_EQ(cmd.kind, COMMAND_JSON);
  EXPECT_STREQ(cmd.argument, "/home/u/seahorse.json");
  // Only the six bytes "ovt://" make a link.
  cmd = run({"orvanta", "ovt:/x.json"}, &out);
  EXPECT_EQ(cmd.kind, COMMAND_JSON);
  cmd = run({"orvanta", "OVT://?a=1"}, &out);
  EXPECT_EQ(cmd.kind, COMMAND_JSON);
}

TEST(CommandLine, TwoOrMoreArgumentsPrintTheUsageAndGoOn) {
  for (auto args : {std::initializer_list<const char*>{"./orvanta", "a.json", "b.json"},
                    std::initializer_list<const char*>{"./orvanta", "ovt://?x", "b", "c", "d"}}) {
    std::string out;
    COMMANDLINE cmd = run(args, &out);
    EXPECT_EQ(cmd.kind, COMMAND_NONE);
    EXPECT_EQ(cmd.argument, nullptr);
    EXPECT_EQ(out, "Usage: ./orvanta ovt://?<query-string>\nor:    ./orvanta <json-file>\n\n");
  }
}

TEST(CommandLine, WithoutOpenersLinksAndFilesSayOneLineAndStartTheDefaultView) {
  for (COMMANDLINE given : {COMMANDLINE{COMMAND_LINK, "ovt://?a=1"}, COMMANDLINE{COMMAND_JSON, "x.json"}}) {
    CAPTURE err;
    COMMANDLINE cmd = withoutopeners(given, err.f);
    EXPECT_EQ(cmd.kind, COMMAND_NONE);
    EXPECT_EQ(cmd.argument, nullptr);
    std::string text = err.text();
    EXPECT_NE(text.find("default view"), std::string::npos) << text;
    EXPECT_EQ(text.find('\n'), text.size() - 1) << "one line: " << text;
  }
  CAPTURE err;
  COMMANDLINE cmd = withoutopeners(COMMANDLINE{COMMAND_NONE, nullptr}, err.f);
  EXPECT_EQ(cmd.kind, COMMAND_NONE);
  EXPECT_EQ(err.text(), "");
}
