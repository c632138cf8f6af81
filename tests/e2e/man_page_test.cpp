// SPDX-License-Identifier: Apache-2.0
// Keeps docs/kestrel.1 true to the shipped binary. What `kestrel` lists and what each command
// prints for -h is what the page must show: a section ".SS \"kestrel <word> ...\"" for every
// command and for nothing else, opening with the command's help text; in it every option of the
// command and none it lacks; for each option a line (after ".TP") with its short and long name,
// followed, up to the next request, by its help text once roff escapes are undone (options with
// an empty help text are exempt).
#include <algorithm>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/process.h"

namespace kestrel_e2e {
namespace {

struct OptionLine {
  std::string roff;  // the line after ".TP"
  std::string text;  // the text after it
};

struct Section {
  std::string roff;     // all of it
  std::string opening;  // its first text
  std::vector<OptionLine> options;
};

// What roff text reads as: font changes dropped and escaped minuses turned back into themselves
// (the headings, option lines and help texts use no other escape). A bare "-" prints as a hyphen
// (U+2010 in a UTF-8 terminal), not as the minus the program prints.
std::string plain(std::string text) {
  static const std::pair<std::regex, const char*> kSteps[] = {
      {std::regex(R"(\\-)"), "\x01"},
      {std::regex(R"(\\f(\(..|\[[^\]]*\]|.))"), ""},
      {std::regex("-"), "‐"},
      {std::regex("\x01"), "-"},
  };
  for (const auto& [pattern, replacement] : kSteps) text = std::regex_replace(text, pattern, replacement);
  return text;
}

// The options a piece of roff shows, as "-x" and "--long-name": the words that read as a minus
// and one letter, or two minuses and a name.
std::set<std::string> options_shown(const std::string& roff) {
  static const std::regex option(R"((?:^|[^\w-])(-[A-Za-z]|--\w+(?:-\w+)*)(?![\w-]))");
  const std::string text = plain(roff);
  std::set<std::string> shown;
  for (std::sregex_iterator it(text.begin(), text.end(), option), end; it != end; ++it) {
    shown.insert((*it)[1]);
  }
  return shown;
}

// The text lines that follow a request, up to the next request or empty line, as one line.
std::string joined(std::string lines) {
  std::replace(lines.begin(), lines.end(), '\n', ' ');
  return lines.empty() ? lines : lines.substr(0, lines.size() - 1);
}

// The sections of the commands, by command word. A ".br" right after an option line puts the
// text below an option shorter than the indent.
std::map<std::string, Section> read_page() {
  static const std::string text = R"((?:[^.'\n][^\n]*\n)*))";
  static const std::regex heading("\\.SS \"kestrel ([^ \"]+)[^\n]*\n(" + text),
      option("\\.TP\n(\\.B[^\n]*)\n(?:\\.br\n)?(" + text);
  const std::string page = read_text(std::string(KESTREL_SOURCE_DIR) + "/docs/kestrel.1");
  std::map<std::string, Section> sections;
  for (std::sregex_iterator it(page.begin(), page.end(), heading), end; it != end; ++it) {
    Section& section = sections[plain((*it)[1])];
    section.roff = page.substr(it->position(), page.find("\n.S", it->position()) - it->position());
    section.opening = joined((*it)[2]);
    for (std::sregex_iterator o(section.roff.begin(), section.roff.end(), option); o != end; ++o) {
      section.options.push_back({(*o)[1], joined((*o)[2])});
    }
  }
  return sections;
}

// Compares one command's section with the options it lists for -h. The scenario holds no log
// records, so the commands that take no options (they ignore -h) end at once. A long name past
// the help column puts its help text on a line of its own.
void check_options(const std::string& word, const Section& section) {
  const Result usage = run_kestrel({word, "-h"}, {.scenario = "version 65536\n"});
  EXPECT_FALSE(usage.timed_out);
  static const std::regex row(R"(\n    (-\w)?,?(--[\w-]+)?(?:\n {26}| *)([^\n]*))");
  std::set<std::string> names;
  for (std::sregex_iterator it(usage.err.begin(), usage.err.end(), row), end; it != end; ++it) {
    const std::string shorter = (*it)[1], name = (*it)[2].matched ? (*it)[2].str() : shorter, help = (*it)[3];
    if (name.empty()) continue;
    names.insert(name);
    if (!shorter.empty()) names.insert(shorter);
    // The option's line shows both its names and is followed by its help text.
    const bool found = std::any_of(section.options.begin(), section.options.end(), [&](const OptionLine& o) {
      const std::set<std::string> shown = options_shown(o.roff);
      return shown.contains(name) && (shorter.empty() || shown.contains(shorter)) &&
             (help.empty() || plain(o.text) == help);
    });
    EXPECT_TRUE(found) << "no option line for " << name << " " << shorter << " followed by \"" << help << "\"";
  }
  for (const std::string& option : options_shown(section.roff)) {
    if (option != "-h" && option != "--help") {
      EXPECT_TRUE(names.contains(option)) << "the section shows " << option << ", which the command lacks";
    }
  }
}

TEST(ManualPage, ShowsEveryCommandAndOptionWithItsHelpText) {
  const std::map<std::string, Section> page = read_page();
  static const std::regex listed(R"(\n   (\S+) +([^\n]*))");
  const std::string list = run_kestrel({}).out;
  std::set<std::string> commands;
  for (std::sregex_iterator it(list.begin(), list.end(), listed), end; it != end; ++it) {
    const std::string word = (*it)[1];
    SCOPED_TRACE("kestrel " + word);
    commands.insert(word);
    const auto section = page.find(word);
    if (section == page.end()) {
      ADD_FAILURE() << "no section in the manual page";
      continue;
    }
    EXPECT_EQ(plain(section->second.opening), (*it)[2].str()) << "the section's opening";
    check_options(word, section->second);
  }
  for (const auto& [word, section] : page) {
    EXPECT_TRUE(commands.contains(word))
        << "the page has a section \"kestrel " << word << "\", which no command has";
  }
}

}  // namespace
}  // namespace kestrel_e2e
