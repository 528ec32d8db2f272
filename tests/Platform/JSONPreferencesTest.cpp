#include "Platform/qt/JSONPreferences.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <unistd.h>

using namespace tessary;
namespace fs = std::filesystem;

namespace {

class JSONPreferencesTest : public testing::Test {
  protected:
    JSONPreferencesTest() {
        std::string name = (fs::temp_directory_path() / "tessary-preferences-XXXXXX").string();
        folder = mkdtemp(name.data());
        file = folder / "deep" / "tessary-link" / "preferences.json";
    }
    ~JSONPreferencesTest() override { fs::remove_all(folder); }

    void write(const std::string& text) const {
        fs::create_directories(file.parent_path());
        std::ofstream(file) << text;
    }
    static std::string read(const fs::path& path) {
        std::stringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }

    fs::path folder, file;
};

} // namespace

TEST_F(JSONPreferencesTest, KeepsWhatWasSetAcrossRuns) {
    {
        JSONPreferences preferences(file);
        EXPECT_EQ(preferences.number("a"), std::nullopt);
        preferences.setNumber("a", 4294967295);
        preferences.setTexts("b", {"10.0.0.2", "ü"});
        EXPECT_EQ(preferences.number("a"), 4294967295);
    }
    const JSONPreferences preferences(file);
    EXPECT_EQ(preferences.number("a"), 4294967295);
    EXPECT_EQ(preferences.array("b"), (std::vector<std::optional<std::string>>{"10.0.0.2", "ü"}));
    EXPECT_EQ(std::distance(fs::directory_iterator(file.parent_path()), {}), 1); // no leftovers
}

TEST_F(JSONPreferencesTest, TellsWholeNumbersFromEverythingElse) {
    write(R"({"zero": 0, "seven": 7.0, "half": 0.5, "negative": -1, "large": 4294967296, "true": true,
              "text": "7", "mixed": ["a", 1], "none": null})");
    const JSONPreferences preferences(file);
    EXPECT_EQ(preferences.number("zero"), 0);
    EXPECT_EQ(preferences.number("seven"), 7);
    for (const char* key : {"half", "negative", "large", "true", "text", "mixed", "none", "absent"})
        EXPECT_EQ(preferences.number(key), std::nullopt) << key;
    EXPECT_EQ(preferences.array("mixed"), (std::vector<std::optional<std::string>>{"a", std::nullopt}));
    EXPECT_EQ(preferences.array("text"), std::nullopt);
}

TEST_F(JSONPreferencesTest, KeepsUnknownMembersAndLaterEdits) {
    write(R"({"theirs": {"deep": [1, 9007199254740993]}, "a": 1})");
    JSONPreferences preferences(file);
    write(R"({"theirs": {"deep": [1, 9007199254740993]}, "a": 1, "edited": true})");
    preferences.setNumber("a", 2);
    const std::string text = read(file);
    EXPECT_NE(text.find("9007199254740993"), std::string::npos);
    EXPECT_NE(text.find("edited"), std::string::npos);
    EXPECT_EQ(JSONPreferences(file).number("a"), 2);
}

TEST_F(JSONPreferencesTest, AFileThatIsNoObjectIsSetAsideAtTheNextWrite) {
    for (const char* text : {"{\"a\": 1", "[1]", ""}) {
        write(text);
        JSONPreferences preferences(file);
        EXPECT_EQ(preferences.number("a"), std::nullopt);
        EXPECT_EQ(read(file), text); // reading alone changes nothing
        preferences.setNumber("a", 1);
        EXPECT_EQ(JSONPreferences(file).number("a"), 1);
    }
    EXPECT_EQ(read(file.string() + ".unreadable"), "{\"a\": 1");
    EXPECT_EQ(read(file.string() + ".unreadable-2"), "[1]");
    EXPECT_EQ(read(file.string() + ".unreadable-3"), "");
}

TEST_F(JSONPreferencesTest, ALinkStaysALink) {
    write("{");
    const fs::path link = folder / "link.json";
    fs::create_symlink(file, link);
    JSONPreferences(link).setNumber("a", 1);
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(JSONPreferences(file).number("a"), 1);
    EXPECT_EQ(read(file.string() + ".unreadable"), "{");
}

TEST_F(JSONPreferencesTest, WhatCannotBeSavedStillHoldsForThisRun) {
    std::ofstream(folder / "deep") << "a file where the folder should be";
    JSONPreferences preferences(file);
    preferences.setNumber("a", 5);
    EXPECT_EQ(preferences.number("a"), 5);
}
