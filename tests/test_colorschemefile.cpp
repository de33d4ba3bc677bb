// colorschemes.json: entries, their checks, the round trip, and the fall-back
// to the built-ins, which never overwrites a file that exists.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "MandelbrotColorscheme.h"
#include "jsontest.h"
#include "test_colorscheme_fakegl.h"

namespace {

using jsontest::json;
using jsontest::OBJ;

const char* const MESSAGE = "Could not read colour scheme file \"";

class SchemeFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fakegl::install();
    char dirtemplate[] = "/tmp/orvanta-csXXXXXX";
    dir = mkdtemp(dirtemplate);
    path = dir + "/colorschemes.json";
  }
  void TearDown() override {
    unlink(path.c_str());
    rmdir(dir.c_str());
    setcolorschemegl(NULL);
  }
  void put(const std::string& text) { std::ofstream(path, std::ios::binary) << text; }
  std::string get() {
    std::ifstream f(path, std::ios::binary);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
  }
  bool exists() { return access(path.c_str(), F_OK) == 0; }
  // Reads the file; `err` gets what went to standard error.
  JDICT* readschemes(std::string* err) {
    testing::internal::CaptureStderr();
    JDICT* d = readColorschemes(NULL, path.c_str(), "/x/texturesgl.jpg");
    *err = testing::internal::GetCapturedStderr();
    return d;
  }
  Colorscheme* fromjson(const char* text) {
    OBJ d(getobjectfromjson(text));
    EXPECT_NE(d, nullptr) << text;
    return ColorschemeFromDictionary(NULL, d.get());
  }

  std::string dir, path;
};

void expectbuiltins(JDICT* d) {
  ASSERT_EQ(countjdict(d), NBUILTINCOLORSCHEME);
  const char* names[] = {"Iteration", "Smooth", "Distance", "Distance and iteration levels", "Texture"};
  for (int i = 0; i < NBUILTINCOLORSCHEME; i++) {
    char* key;
    Colorscheme* cs = static_cast<Colorscheme*>(getjdictenum(d, i, &key));
    EXPECT_STREQ(key, names[i]);
    EXPECT_TRUE(cs->builtin);
  }
}

void expectequal(const Colorscheme* a, const Colorscheme* b) {
  EXPECT_STREQ(getjstr(a->name), getjstr(b->name));
  EXPECT_STREQ(getjstr(a->code), getjstr(b->code));
  EXPECT_EQ(a->builtin, b->builtin);
  EXPECT_EQ(a->samples, b->samples);
  EXPECT_EQ(a->nparam, b->nparam);
  EXPECT_EQ(a->channels, b->channels);
  ASSERT_EQ(a->auxfile == NULL, b->auxfile == NULL);
  if (a->auxfile) {
    EXPECT_STREQ(getjstr(a->auxfile), getjstr(b->auxfile));
  }
  ASSERT_NE(b->cs, nullptr);
  EXPECT_EQ(b->cs->channels, b->channels);
}

// ---------------------------------------------------------------- one entry

TEST_F(SchemeFileTest, AnEntryWithEveryKey) {
  Colorscheme* cs = fromjson(
      "{\"name\": \"A\", \"codegl\": \"vec4 color(Data data) { return vec4(1.0); }\", \"channels\": 4103.9,"
      " \"samples\": 3, \"nparam\": 2, \"builtin\": -1, \"aux\": \"/a.jpg\"}");
  ASSERT_NE(cs, nullptr);
  EXPECT_STREQ(getjstr(cs->name), "A");
  EXPECT_EQ(cs->channels, 4103);  // truncated
  EXPECT_EQ(cs->samples, 3);
  EXPECT_EQ(cs->nparam, 2);
  EXPECT_TRUE(cs->builtin);  // any non-zero number
  EXPECT_STREQ(getjstr(cs->auxfile), "/a.jpg");
  EXPECT_NE(cs->prog, 0u);
  EXPECT_NE(fakegl::state.source.find("#define AUX\n#define SAMPLES 3\n"), std::string::npos);
  releasejobject(cs);
}

TEST_F(SchemeFileTest, OptionalKeysTakeTheirDefaults) {
  Colorscheme* cs = fromjson("{\"name\": \"A\", \"codegl\": \"x\", \"channels\": 1}");
  ASSERT_NE(cs, nullptr);
  EXPECT_EQ(cs->samples, 1);
  EXPECT_EQ(cs->nparam, 0);
  EXPECT_FALSE(cs->builtin);
  EXPECT_EQ(cs->auxfile, nullptr);
  releasejobject(cs);
}

TEST_F(SchemeFileTest, AWrongEntryIsRefused) {
  for (const char* text : {
           "{\"codegl\": \"x\", \"channels\": 1}",
           "{\"name\": \"A\", \"channels\": 1}",
           "{\"name\": \"A\", \"codegl\": \"x\"}",
           "{\"name\": 1, \"codegl\": \"x\", \"channels\": 1}",
           "{\"name\": \"A\", \"codegl\": [], \"channels\": 1}",
           "{\"name\": \"A\", \"codegl\": \"x\", \"channels\": \"iter\"}",
           "{\"name\": \"A\", \"codegl\": \"x\", \"channels\": 1, \"samples\": \"2\"}",
           "{\"name\": \"A\", \"codegl\": \"x\", \"channels\": 1, \"nparam\": true}",
           "{\"name\": \"A\", \"codegl\": \"x\", \"channels\": 1, \"builtin\": true}",
           "{\"name\": \"A\", \"codegl\": \"x\", \"channels\": 1, \"aux\": 0}",
           // Values the engine or the program could not serve.
           "{\"name\": \"A\", \"codegl\": \"x\", \"channels\": 512}",
           "{\"name\": \"A\", \"codegl\": \"x\", \"channels\": 8192}",
           "{\"name\": \"A\", \"codegl\": \"x\", \"channels\": -1}",
           "{\"name\": \"A\", \"codegl\": \"x\", \"channels\": 1e300}",
           "{\"name\": \"A\", \"codegl\": \"x\", \"channels\": 1, \"samples\": 0}",
           "{\"name\": \"A\", \"codegl\": \"x\", \"channels\": 1, \"samples\": 17}",
           "{\"name\": \"A\", \"codegl\": \"x\", \"channels\": 1, \"nparam\": 11}",
           "{\"name\": \"A\", \"codegl\": \"x\", \"channels\": 1, \"nparam\": -1}",
       })
    EXPECT_EQ(fromjson(text), nullptr) << text;
}

TEST_F(SchemeFileTest, AnEntryThatDoesNotCompileIsRefused) {
  fakegl::state.compileok = false;
  EXPECT_EQ(fromjson("{\"name\": \"A\", \"codegl\": \"x\", \"channels\": 1}"), nullptr);
  fakegl::state.compileok = true;
  fakegl::state.linkok = false;
  EXPECT_EQ(fromjson("{\"name\": \"A\", \"codegl\": \"x\", \"channels\": 1}"), nullptr);
}

TEST_F(SchemeFileTest, DictionaryFromColorschemeWritesWhatIsSet) {
  Colorscheme* cs = newColorscheme();
  cs->channels = 17;
  cs->samples = 2;
  JDICT* d = DictionaryFromColorscheme(cs);
  EXPECT_EQ(json(d), "{\n  \"channels\": 17,\n  \"samples\": 2,\n  \"builtin\": 0\n}");
  releasejobject(d);
  cs->name = newjstr("N");
  cs->code = newjstr("c");
  cs->nparam = 1;
  cs->builtin = true;
  cs->auxfile = newjstr("a.jpg");
  d = DictionaryFromColorscheme(cs);
  EXPECT_EQ(json(d),
            "{\n  \"name\": \"N\",\n  \"codegl\": \"c\",\n  \"channels\": 17,\n  \"samples\": 2,\n  \"nparam\": 1,\n"
            "  \"builtin\": 1,\n  \"aux\": \"a.jpg\"\n}");
  releasejobject(d);
  releasejobject(cs);
}

// ---------------------------------------------------------------- the file

TEST_F(SchemeFileTest, AMissingFileGivesTheBuiltinsAndIsWritten) {
  std::string err;
  JDICT* d = readschemes(&err);
  expectbuiltins(d);
  EXPECT_EQ(err, std::string(MESSAGE) + path + "\".\n");
  ASSERT_TRUE(exists());
  // What was written reads back as the same schemes, without a message.
  std::string err2;
  JDICT* again = readschemes(&err2);
  EXPECT_EQ(err2, "");
  ASSERT_EQ(countjdict(again), NBUILTINCOLORSCHEME);
  for (int i = 0; i < NBUILTINCOLORSCHEME; i++)
    expectequal(static_cast<Colorscheme*>(getjdictenum(d, i, NULL)),
                static_cast<Colorscheme*>(getjdictenum(again, i, NULL)));
  releasejobject(again);
  releasejobject(d);
}

TEST_F(SchemeFileTest, BuiltinsRoundTripFieldByField) {
  JDICT* builtins = builtincolorschemes(NULL, "/x/texturesgl.jpg");
  writeColorschemes(builtins, path.c_str());
  std::string first = get();
  ASSERT_EQ(first.rfind("[\n  {\n    \"name\": \"Iteration\",\n    \"codegl\": ", 0), 0u) << first;
  std::string err;
  JDICT* read = readschemes(&err);
  EXPECT_EQ(err, "");
  ASSERT_EQ(countjdict(read), NBUILTINCOLORSCHEME);
  for (int i = 0; i < NBUILTINCOLORSCHEME; i++) {
    char *k1, *k2;
    Colorscheme* a = static_cast<Colorscheme*>(getjdictenum(builtins, i, &k1));
    Colorscheme* b = static_cast<Colorscheme*>(getjdictenum(read, i, &k2));
    EXPECT_STREQ(k1, k2);
    expectequal(a, b);
  }
  // Written again, the file is the same text.
  writeColorschemes(read, path.c_str());
  EXPECT_EQ(get(), first);
  releasejobject(read);
  releasejobject(builtins);
}

TEST_F(SchemeFileTest, ABrokenFileFallsBackAndIsLeftAsItWas) {
  JDICT* builtins = builtincolorschemes(NULL, "/x/texturesgl.jpg");
  writeColorschemes(builtins, path.c_str());
  releasejobject(builtins);
  std::string good = get();
  std::string broken[] = {
      good.substr(0, good.size() / 2),  // truncated
      "",
      "{\"name\": \"A\", \"codegl\": \"x\", \"channels\": 1}",                  // not an array
      "[]",                                                                      // no scheme
      "[1, \"a\", null, [ ]]",                                                   // no dictionary
      "[{\"name\": \"A\", \"codegl\": \"x\", \"channels\": \"iter\"}]",          // wrong type
      "[{\"name\": \"A\", \"codegl\": \"x\", \"channels\": [\"iter\", \"dist\"]}]",  // channel names
      "[{\"name\": \"A\", \"codegl\": \"x\", \"channels\": 1024}]",              // unknown channel
  };
  for (const std::string& text : broken) {
    put(text);
    std::string err;
    JDICT* d = readschemes(&err);
    expectbuiltins(d);
    EXPECT_EQ(err, std::string(MESSAGE) + path + "\".\n") << text;
    EXPECT_EQ(get(), text) << "overwritten";
    releasejobject(d);
  }
}

TEST_F(SchemeFileTest, AnUnreadableFileIsNotOverwritten) {
  // A directory in place of the file: it exists, but cannot be read as one.
  ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
  std::string err;
  JDICT* d = readschemes(&err);
  expectbuiltins(d);
  EXPECT_EQ(err, std::string(MESSAGE) + path + "\".\n");
  releasejobject(d);
  rmdir(path.c_str());
}

TEST_F(SchemeFileTest, BadEntriesAreDroppedAloneAndSilently) {
  put("[{\"name\": \"A\", \"codegl\": \"a\", \"channels\": 1}, 5,"
      " {\"name\": \"B\", \"codegl\": \"b\"},"
      " {\"name\": \"C\", \"codegl\": \"c\", \"channels\": 16}]");
  std::string text = get();
  std::string err;
  JDICT* d = readschemes(&err);
  EXPECT_EQ(err, "");
  ASSERT_EQ(countjdict(d), 2);
  char* key;
  getjdictenum(d, 0, &key);
  EXPECT_STREQ(key, "A");
  getjdictenum(d, 1, &key);
  EXPECT_STREQ(key, "C");
  EXPECT_EQ(get(), text);
  releasejobject(d);
}

TEST_F(SchemeFileTest, TheLaterOfTwoSchemesOfOneNameReplacesTheEarlierInPlace) {
  put("[{\"name\": \"A\", \"codegl\": \"first\", \"channels\": 1},"
      " {\"name\": \"B\", \"codegl\": \"b\", \"channels\": 1},"
      " {\"name\": \"A\", \"codegl\": \"second\", \"channels\": 256}]");
  std::string err;
  JDICT* d = readschemes(&err);
  ASSERT_EQ(countjdict(d), 2);
  char* key;
  Colorscheme* a = static_cast<Colorscheme*>(getjdictenum(d, 0, &key));
  EXPECT_STREQ(key, "A");
  EXPECT_STREQ(getjstr(a->code), "second");
  EXPECT_EQ(a->channels, 256);
  releasejobject(d);
}

TEST_F(SchemeFileTest, AFileThatCannotBeOpenedForWritingIsSkippedSilently) {
  JDICT* builtins = builtincolorschemes(NULL, "t.jpg");
  testing::internal::CaptureStderr();
  writeColorschemes(builtins, (dir + "/no/such/dir/colorschemes.json").c_str());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  releasejobject(builtins);
}

}  // namespace
