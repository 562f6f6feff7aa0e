// ChangeTimes: a noted change time follows renames of the path and of folders above it, goes
// with a removal, never lowers a later last-modified time, and the table stays bounded.
#include "ChangeTimes.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace storage::mount {
namespace {

bool raised(const ChangeTimes& times, const std::string& path) {
  struct stat st {};
  times.apply(path, st);
  return st.st_ctim.tv_sec != 0;
}

TEST(ChangeTimes, FollowTheTreeAndStayBounded) {
  struct Case {
    const char* name;
    std::function<void(ChangeTimes&)> steps;
    std::vector<std::string> raisedPaths, plainPaths;
  };
  const std::vector<Case> cases = {
      {"a change", [](ChangeTimes& t) { t.changed("/d/f"); }, {"/d/f"}, {"/d", "/d/g"}},
      {"an addition raises the folder",
       [](ChangeTimes& t) { t.added("/d/f"); },
       {"/d/f", "/d"},
       {"/"}},
      {"a rename carries what is below",
       [](ChangeTimes& t) {
         t.changed("/d/x/f");
         t.changed("/dx");
         t.moved("/d", "/e");
       },
       {"/e/x/f", "/e", "/", "/dx"},
       {"/d/x/f", "/d"}},
      {"a removal forgets what is below",
       [](ChangeTimes& t) {
         t.changed("/d/f");
         t.removed("/d");
       },
       {"/"},
       {"/d/f", "/d"}},
  };
  for (const auto& c : cases) {
    ChangeTimes times;
    c.steps(times);
    for (const auto& p : c.raisedPaths) EXPECT_TRUE(raised(times, p)) << c.name << ": " << p;
    for (const auto& p : c.plainPaths) EXPECT_FALSE(raised(times, p)) << c.name << ": " << p;
  }
  ChangeTimes bounded(8);
  for (int i = 0; i < 100; ++i) bounded.changed("/f" + std::to_string(i));
  EXPECT_TRUE(raised(bounded, "/f99"));
  EXPECT_FALSE(raised(bounded, "/f0"));
  struct stat later {};
  later.st_ctim.tv_sec = 4000000000;
  bounded.apply("/f99", later);
  EXPECT_EQ(later.st_ctim.tv_sec, 4000000000);
}

}  // namespace
}  // namespace storage::mount
