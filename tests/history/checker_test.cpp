// Each rule with the shortest history that keeps it and the same with one line that is a lie.
#include "tests/history/checker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

namespace {

using History::Findings;
using History::Record;
using History::Rule;

// Two variables, "x" and "y"; processes "a" and "b"; epoch 5.
Record recordOf(const std::string& lines) {
  Record record;
  std::istringstream stream(lines);
  EXPECT_EQ("", record.add(stream));
  return record;
}

std::string rulesBroken(const Findings& findings) {
  std::string names;
  for (const auto& finding : findings.first()) names += std::string(nameOf(finding.rule)) + "\n";
  return names;
}

bool breaks(const Findings& findings, Rule rule) {
  return std::any_of(findings.first().begin(), findings.first().end(),
                     [rule](const auto& finding) { return finding.rule == rule; });
}

struct Lie {
  const char* why;
  Rule rule;
  const char* before;
  const char* truth;
  const char* lie;
  const char* after;
};

// a writes a-1 at revision 1, and then a-2 at revision 2.
#define ONE_WRITE "process a\nb 1 1 10 w x a-1\ne 1 20 ok 5 1\n"
#define TWO_WRITES ONE_WRITE "b 2 1 30 w x a-2\ne 2 40 ok 5 2\n"

const Lie kLies[] = {
    {"a fresh read after the answer finds what was before the write", Rule::LostWrite,
     ONE_WRITE "process b\n", "f 1 30 40 x 5 1 0 a-1\n", "f 1 30 40 x 5 0 1 default-0\n", ""},
    {"the second of two writes is gone after a kill", Rule::LostWrite, TWO_WRITES "process b\n",
     "f 1 50 60 x 5 2 0 a-2\n", "f 1 50 60 x 5 1 0 a-1\n", ""},
    {"a lost write is found by a read that ends in a later epoch", Rule::LostWrite,
     TWO_WRITES "process b\n", "f 1 50 60 x 7 2 0 a-2\n", "f 1 50 60 x 7 1 0 a-1\n", ""},
    {"options that were set are gone", Rule::LostWrite,
     "process a\nb 1 1 10 w x#options a-1\ne 1 20 ok 5 1\nprocess b\n",
     "f 1 30 40 x#options 5 1 0 a-1\n", "f 1 30 40 x#options 5 0 1 default-0\n", ""},
    {"a reset was acknowledged and the value is there", Rule::LostWrite,
     ONE_WRITE "b 2 1 30 z x -\ne 2 40 ok 0 2\nprocess b\n", "f 1 50 60 x 5 2 1 default-0\n",
     "f 1 50 60 x 5 1 0 a-1\n", ""},
    {"options that were reset are there", Rule::LostWrite,
     "process a\nb 1 1 10 w x#options a-1\ne 1 20 ok 5 1\nb 2 1 30 z x#options -\ne 2 40 ok 0 2\n",
     "f 1 50 60 x#options 5 2 1 default-0\n", "f 1 50 60 x#options 5 1 0 a-1\n", ""},
    {"a reset says that there was nothing to reset", Rule::LostReset,
     ONE_WRITE "process b\nb 1 1 30 z x -\n", "e 1 40 ok 0 2\n", "e 1 40 ok 0 0\n", ""},
    {"two fresh reads, the later one of the older value", Rule::StaleRead, TWO_WRITES "process b\n",
     "f 1 31 32 x 5 1 0 a-1\nf 1 33 34 x 5 2 0 a-2\n",
     "f 1 31 32 x 5 2 0 a-2\nf 1 33 34 x 5 1 0 a-1\n", ""},
    {"a notice came before the change was there", Rule::StaleRead, TWO_WRITES "process b\n",
     "h 35 1 5 2 0 x a-2\nf 1 36 37 x 5 2 0 a-2\n", "h 35 1 5 2 0 x a-2\nf 1 36 37 x 5 1 0 a-1\n",
     ""},
    {"a cache knows more than the service", Rule::StaleRead, TWO_WRITES "process b\n",
     "c 1 31 32 x a-2\nf 1 33 34 x 5 2 0 a-2\n", "c 1 31 32 x a-2\nf 1 33 34 x 5 1 0 a-1\n", ""},
    {"defaults of definitions that were replaced", Rule::StaleRead, "process a\n",
     "f 1 10 20 x 5 0 1 default-0\nf 1 30 40 x 6 0 1 default-1\n",
     "f 1 10 20 x 5 0 1 default-1\nf 1 30 40 x 6 0 1 default-0\n", ""},
    {"the later of two writes stands before the earlier", Rule::SwappedPair, "process a\n",
     "b 1 1 10 w x a-1\ne 1 20 ok 5 1\nb 2 1 30 w x a-2\ne 2 40 ok 5 2\n",
     "b 1 1 10 w x a-1\ne 1 20 ok 5 2\nb 2 1 30 w x a-2\ne 2 40 ok 5 1\n", ""},
    {"a write that nobody answered stands before one that ended when it began", Rule::SwappedPair,
     "process a\n", "b 1 1 10 w x a-1\ne 1 20 ok 5 1\nb 2 1 30 w x a-2\nf 1 50 60 x 5 2 0 a-2\n",
     "b 1 1 10 w x a-1\ne 1 20 ok 5 2\nb 2 1 30 w x a-2\nh 50 1 5 1 0 x a-2\n", ""},
    {"a reset stands before a write that had ended", Rule::SwappedPair, "process a\n",
     "b 1 1 10 w x a-1\ne 1 20 ok 5 1\nb 2 1 30 z x -\ne 2 40 ok 0 2\n",
     "b 1 1 10 w x a-1\ne 1 20 ok 5 2\nb 2 1 30 z x -\ne 2 40 ok 0 1\n", ""},
    {"of two variables the later write has the smaller revision", Rule::RevisionsOrder,
     "process a\n", "b 1 1 10 w x a-1\ne 1 20 ok 5 1\nb 2 1 30 w y a-2\ne 2 40 ok 5 2\n",
     "b 1 1 10 w x a-1\ne 1 20 ok 5 2\nb 2 1 30 w y a-2\ne 2 40 ok 5 1\n", ""},
    {"an epoch that was over is back", Rule::EpochBack, "process a\n",
     "f 1 10 20 x 5 0 1 default-0\nf 1 30 40 y 6 0 1 default-0\n",
     "f 1 10 20 x 6 0 1 default-0\nf 1 30 40 y 5 0 1 default-0\n", ""},
    {"the answer and a notice tell of one revision with different values", Rule::TwoStates,
     TWO_WRITES "process b\n", "h 45 1 5 2 0 x a-2\n", "h 45 1 5 2 0 x a-1\n", ""},
    {"two variables changed at one revision", Rule::TwoStates, ONE_WRITE "process b\n",
     "b 1 1 10 w y b-1\ne 1 20 ok 5 2\n", "b 1 1 10 w y b-1\ne 1 20 ok 5 1\n", ""},
    {"a value at the revision of what never changed", Rule::TwoStates, ONE_WRITE "process b\n",
     "f 1 30 40 x 5 1 0 a-1\n", "f 1 30 40 x 5 0 0 a-1\n", ""},
    {"one write is told of at two revisions", Rule::WrittenTwice, ONE_WRITE "process b\n",
     "h 30 1 5 1 0 x a-1\n", "h 30 1 5 3 0 x a-1\n", ""},
    {"nobody wrote the value", Rule::FromNowhere, ONE_WRITE "process b\n",
     "f 1 15 40 x 5 1 0 a-1\n", "f 1 15 40 x 5 2 0 a-9\n", ""},
    {"the value of another variable", Rule::FromNowhere, ONE_WRITE "process b\n",
     "f 1 30 40 x 5 1 0 a-1\n", "f 1 30 40 y 5 1 0 a-1\n", ""},
    {"a default, and nobody reset the variable", Rule::FromNowhere, ONE_WRITE "process b\n",
     "b 1 1 21 z x -\nf 1 30 40 x 5 2 1 default-0\n", "f 1 30 40 x 5 2 1 default-0\n", ""},
    {"a value that is said to be the default", Rule::FromNowhere, ONE_WRITE "process b\n",
     "f 1 30 40 x 5 1 0 a-1\n", "f 1 30 40 x 5 1 1 a-1\n", ""},
    {"a value is there before it is written", Rule::BeforeWritten, "process b\n",
     "f 1 5 15 x 5 1 0 a-1\n", "f 1 5 8 x 5 1 0 a-1\n", ONE_WRITE},
    {"a cache has a value before it is written", Rule::BeforeWritten, "process b\n",
     "c 1 5 15 x a-1\n", "c 1 5 8 x a-1\n", ONE_WRITE},
    {"a value that the service refused is there", Rule::RefusedSeen,
     "process a\nb 1 1 10 w x a-1\ne 1 20 refused 0 0\nprocess b\n",
     "f 1 30 40 x 5 0 1 default-0\n", "f 1 30 40 x 5 1 0 a-1\n", ""},
    {"a handler is told of a value that a provider refused", Rule::RefusedSeen,
     "process a\nb 1 1 10 w x a-1\nprocess p\n", "q 15 1 ok x a-1\n", "q 15 1 refused x a-1\n",
     "process b\nh 20 1 5 1 0 x a-1\n"},
    {"a write is acknowledged that a provider refused", Rule::VetoIgnored, "process p\n",
     "v 15 1 ok x a-1\n", "v 15 1 refused x a-1\n", ONE_WRITE},
    {"a provider that was there is not asked", Rule::ProviderPassed,
     TWO_WRITES "b 3 1 50 w x a-3\ne 3 60 ok 5 3\nprocess p\nq 15 1 ok x a-1\n",
     "q 35 1 ok x a-2\n", "", "q 55 1 ok x a-3\n"},
    {"a provider is told of two changes in the wrong order", Rule::ProviderOrder,
     TWO_WRITES "process p\n", "q 35 1 ok x a-1\nq 36 1 ok x a-2\n",
     "q 35 1 ok x a-2\nq 36 1 ok x a-1\n", ""},
    {"a process does not read back what it wrote", Rule::CachedBack, ONE_WRITE, "c 2 30 40 x a-1\n",
     "c 2 30 40 x default-0\n", ""},
    {"nor is it excused by a reset that comes later", Rule::CachedBack, ONE_WRITE,
     "c 2 30 40 x a-1\n", "c 2 30 40 x default-0\n", "b 2 1 50 z x -\ne 2 60 ok 0 2\n"},
    {"nor by one that nobody answered and that all would have known of since", Rule::CachedBack,
     "process a\nb 9 1 2 z x -\nsettled 5 8\n" ONE_WRITE, "c 2 30 40 x a-1\n",
     "c 2 30 40 x default-0\n", ""},
    {"a cached read is older than the one before it", Rule::CachedBack, TWO_WRITES "process b\n",
     "c 1 50 51 x a-1\nc 2 52 53 x a-2\n", "c 1 50 51 x a-2\nc 2 52 53 x a-1\n", ""},
    {"a cached read is older than what a handler was told", Rule::CachedBack,
     TWO_WRITES "process b\n", "h 50 1 5 2 0 x a-2\nc 2 52 53 x a-2\n",
     "h 50 1 5 2 0 x a-2\nc 2 52 53 x a-1\n", ""},
    {"cached options go back", Rule::CachedBack,
     "process a\nb 1 1 10 w x#options a-1\ne 1 20 ok 5 1\n"
     "b 2 1 30 w x#options a-2\ne 2 40 ok 5 2\nprocess b\n",
     "c 1 50 51 x#options a-1\nc 2 52 53 x#options a-2\n",
     "c 1 50 51 x#options a-2\nc 2 52 53 x#options a-1\n", ""},
    {"a cache is older than the store that was restored", Rule::CachedBack,
     ONE_WRITE "copy 21 22 0 1\nb 2 1 30 w x a-2\ne 2 40 ok 5 2\nrestore 50 60 0 9\n",
     "f 1 70 71 x 9 1 0 a-1\nc 2 72 73 x a-1\n", "f 1 70 71 x 9 1 0 a-1\nc 2 72 73 x a-2\n", ""},
    {"a cache is stale at rest", Rule::Stale, TWO_WRITES "process b\nsettled 50 100\ns 60\n",
     "l 0 61 62 x a-2\n", "l 0 61 62 x a-1\n", "t 0 70 71 x 5 2 0 a-2\n"},
    {"a handler is told in the wrong order", Rule::ToldBack, TWO_WRITES "process b\n",
     "h 50 1 5 1 0 x a-1\nh 51 1 5 2 0 x a-2\n", "h 50 1 5 2 0 x a-2\nh 51 1 5 1 0 x a-1\n", ""},
    {"nor may it be over another connection", Rule::ToldBack, TWO_WRITES "process b\n",
     "h 50 1 5 1 0 x a-1\nh 51 2 5 2 0 x a-2\n", "h 50 1 5 2 0 x a-2\nh 51 2 5 1 0 x a-1\n", ""},
    {"a handler is told twice", Rule::ToldTwice, ONE_WRITE "process b\ns 5\n",
     "h 50 1 5 1 0 x a-1\nh 51 2 5 1 0 x a-1\n", "h 50 1 5 1 0 x a-1\nh 51 1 5 1 0 x a-1\n", ""},
    {"one registration excuses one repetition", Rule::ToldTwice, ONE_WRITE "process b\n",
     "r 2 3 x\nh 50 1 5 1 0 x a-1\nh 51 1 5 1 0 x a-1\n",
     "r 2 3 x\nh 50 1 5 1 0 x a-1\nh 51 1 5 1 0 x a-1\nh 52 1 5 1 0 x a-1\n", ""},
    {"and not that of another variable's", Rule::ToldTwice, ONE_WRITE "process b\n",
     "r 2 3 x\nh 50 1 5 1 0 x a-1\nh 51 1 5 1 0 x a-1\n",
     "r 2 3 xx\nh 50 1 5 1 0 x a-1\nh 51 1 5 1 0 x a-1\n", ""},
    {"a handler is never told the last change", Rule::NeverTold,
     TWO_WRITES "process b\nr 2 3 x\nh 21 1 5 1 0 x a-1\n", "h 50 1 5 2 0 x a-2\n", "",
     "settled 60 100\ns 70\nt 0 80 81 x 5 2 0 a-2\n"},
    {"a handler is never told anything", Rule::NeverTold, ONE_WRITE "process b\n", "r 11 12 x\n",
     "r 2 3 x\n", "settled 60 100\ns 70\nt 0 80 81 x 5 1 0 a-1\n"},
    {"a handler does not know what options there are", Rule::NeverTold,
     "process a\nb 1 1 10 w x#options a-1\ne 1 20 ok 5 1\nprocess b\n", "r 2 3 x\n",
     "r 2 3 x#options\n", "settled 60 100\ns 70\nt 0 80 81 x#options 5 1 0 a-1\n"},
    {"a restored store has what was overwritten before the copy", Rule::NotTheCopy,
     TWO_WRITES "copy 45 46 0 2\nrestore 50 60 0 9\n", "f 1 70 71 x 9 2 0 a-2\n",
     "f 1 70 71 x 9 1 0 a-1\n", ""},
    {"a copy lacks what was acknowledged before", Rule::CopyIncomplete, TWO_WRITES,
     "copy 45 46 0 2\n", "copy 45 46 0 1\n", ""},
    {"a restored store goes on before its copy's revision", Rule::RevisionsOrder,
     TWO_WRITES "copy 45 46 0 2\nrestore 50 60 0 9\n", "b 3 1 70 w y a-3\ne 3 80 ok 9 3\n",
     "b 3 1 70 w y a-3\ne 3 80 ok 9 2\n", ""},
};

TEST(CheckerTest, RefusesEachLieAndAcceptsTheSameHistoryWithoutIt) {
  for (const Lie& c : kLies) {
    SCOPED_TRACE(c.why);
    const Record truth = recordOf(std::string(c.before) + c.truth + c.after);
    EXPECT_EQ("", rulesBroken(check(truth)));
    const Findings findings = check(recordOf(std::string(c.before) + c.lie + c.after));
    EXPECT_TRUE(breaks(findings, c.rule)) << nameOf(c.rule) << " in:\n" << rulesBroken(findings);
  }
}

TEST(CheckerTest, NoRuleIsWithoutALie) {
  for (std::size_t i = 0; i < History::kRules; ++i) {
    const auto rule = static_cast<Rule>(i);
    EXPECT_TRUE(std::any_of(std::begin(kLies), std::end(kLies), [rule](const Lie& c) {
      return c.rule == rule;
    })) << nameOf(rule);
  }
}

struct Allowed {
  const char* why;
  const char* lines;
};

const Allowed kAllowed[] = {
    {"nothing happened", ""},
    {"a read beside a write has the one or the other",
     ONE_WRITE "process b\nf 1 12 14 x 5 0 1 default-0\nf 2 13 14 x 5 1 0 a-1\n"},
    {"two writes at the same time, in either order",
     "process a\nb 1 1 10 w x a-1\ne 1 20 ok 5 2\nprocess b\nb 1 1 11 w x b-1\ne 1 19 ok 5 1\n"},
    {"a write that nobody answered happened late",
     "process a\nb 1 1 10 w x a-1\nf 1 30 40 x 5 0 1 default-0\nf 1 50 60 x 5 1 0 a-1\n"},
    {"a write that nobody answered never happened",
     "process a\nb 1 1 10 w x a-1\nf 1 30 40 x 5 0 1 default-0\n"},
    {"what came after the copy is gone with the restore",
     ONE_WRITE "copy 21 22 0 1\nb 2 1 30 w x a-2\ne 2 40 ok 5 2\nrestore 50 60 0 9\n"
               "f 1 70 71 x 9 1 0 a-1\nb 3 1 80 w x a-3\ne 3 90 ok 9 2\n"},
    {"a copy of a branch that was left",
     ONE_WRITE "copy 21 22 0 1\nb 2 1 30 w x a-2\ne 2 40 ok 5 2\ncopy 41 42 1 2\n"
               "restore 50 60 0 9\nf 1 61 62 x 9 1 0 a-1\nrestore 70 80 1 10\n"
               "f 1 81 82 x 10 2 0 a-2\nc 2 83 84 x a-2\n"},
    {"a reset while a store is restored belongs to the one or the other",
     ONE_WRITE "copy 21 22 0 1\nb 2 1 45 z x -\ne 2 55 ok 0 2\nrestore 50 60 0 9\n"
               "f 1 70 71 x 9 1 0 a-1\n"},
    {"a default may come of a reset that nobody answered",
     ONE_WRITE "b 2 1 15 z x -\nc 2 30 40 x default-0\n"},
    {"other definitions, the value stays",
     ONE_WRITE "f 1 30 40 x 6 1 0 a-1\nf 1 30 40 y 6 0 1 default-1\n"},
    {"the cache of another process is behind", TWO_WRITES "process b\nc 1 50 60 x a-1\n"},
    {"options that were set reach the cache by notice",
     "process a\nb 1 1 10 w x#options a-1\ne 1 20 ok 5 1\nc 1 30 40 x#options default-0\n"},
    {"a provider reads what it is asked about, and refuses it",
     "process p\nb 1 1 10 w x a-1\nq 12 1 refused x a-1\ne 1 20 refused 0 0\nc 1 15 16 x a-1\n"
     "c 1 30 31 x default-0\n"},
    {"a provider is told again after a change that failed",
     ONE_WRITE "b 2 1 25 w x a-2\ne 2 35 refused 0 0\n"
               "process p\nh 21 1 5 1 0 x a-1\nq 30 1 refused x a-2\nh 31 1 5 1 0 x a-1\n"},
    {"a provider that went is not asked",
     TWO_WRITES "b 3 1 50 w x a-3\ne 3 60 ok 5 3\nprocess p\nq 15 1 ok x a-1\nq 55 2 ok x a-3\n"},
    {"a slow handler is told the newest alone",
     TWO_WRITES "process b\nr 2 3 x\nh 50 1 5 2 0 x a-2\n"
                "settled 60 100\ns 70\nt 0 80 81 x 5 2 0 a-2\n"},
};

TEST(CheckerTest, AcceptsWhatCanHappen) {
  for (const Allowed& c : kAllowed) EXPECT_EQ("", rulesBroken(check(recordOf(c.lines)))) << c.why;
}

// A long clean history of many variables: each value is written, read by two, told, and reset.
std::string longHistory(int rounds) {
  std::ostringstream lines;
  lines << "process a\n";
  for (int i = 0; i < rounds; ++i) {
    const std::string variable = "v" + std::to_string(i % 40);
    const std::string value = "a-" + std::to_string(i + 1);
    const int at = 1000 + i * 100;
    lines << "b " << i << " 1 " << at << " w " << variable << ' ' << value << "\ne " << i << ' '
          << at + 10 << " ok 5 " << i + 1 << "\nf 2 " << at + 20 << ' ' << at + 30 << ' '
          << variable << " 5 " << i + 1 << " 0 " << value << "\nc 3 " << at + 40 << ' ' << at + 50
          << ' ' << variable << ' ' << value << "\nh " << at + 60 << " 1 5 " << i + 1 << " 0 "
          << variable << ' ' << value << '\n';
  }
  return lines.str();
}

TEST(CheckerTest, ShowsNoMoreOfALongHistoryThanTheContradiction) {
  constexpr int kRounds = 5000;
  const std::string stale = "process b\nf 1 900000 900001 v7 5 8 0 a-8\n";
  Record record = recordOf(longHistory(kRounds) + stale);
  const Findings findings = check(record);
  ASSERT_EQ(1U, findings.count()) << rulesBroken(findings);
  const std::string text = shortest(record, findings.first().front());
  EXPECT_EQ(2, std::count(text.begin(), text.end(), '\n')) << text;
  EXPECT_NE(std::string::npos, text.find("fresh read v7 a-8 (revision 8 of epoch 5)")) << text;
}

TEST(RecordTest, LeavesOutALineThatAKillCutShort) {
  const Record record = recordOf("process a\nb 1 1 10 w x a-1\ne 1 20 ok 5");
  ASSERT_EQ(1U, record.operations.size());
  EXPECT_EQ(History::Outcome::Unknown, record.operations[0].outcome);
  EXPECT_EQ(History::kNever, record.operations[0].end);
}

TEST(RecordTest, TellsALineThatItDoesNotUnderstand) {
  for (const char* line : {"what is this", "b 1 1 ten w x a-1", "e 7 20 ok 5 1", "h 1 2",
                           "settled 1", "f 1 2 3 x 5 1 0 a-1 more"}) {
    Record record;
    std::istringstream stream(std::string("process a\n") + line + "\n");
    EXPECT_EQ(line, record.add(stream));
  }
}

}  // namespace
