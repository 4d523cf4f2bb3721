#include "object/object_monitor.h"

#include <gtest/gtest.h>

#include <locale>
#include <string>

namespace {

struct Monitored {
  OBJECT_MONITOR<Monitored> monitor;
};

struct Quiet {};

const char kHeader[] = " id     alive|     new|  delete| name\r\n";

std::string Table() {
  std::string text = "to be replaced";
  dump_monitoring_objects(text);
  return text;
}

std::string List() {
  std::string text = "to be replaced";
  dump_monitoring_objects2(text);
  return text;
}

struct GroupsDigits : std::numpunct<char> {
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\1"; }
};

// One case, because the registry belongs to the whole process and is never reset.
TEST(ObjectMonitorTest, DumpsWhatIsRegistered) {
  EXPECT_EQ(Table(), kHeader);
  EXPECT_EQ(List(), "");

  static ADD_TO_MONITORING_LIST<Quiet> quiet("Quiet");
  static ADD_TO_MONITORING_LIST<Monitored> monitored("Monitored");
  RegisterMonitoredClass(&quiet, nullptr);  // an incomplete entry keeps its id and is not shown
  RegisterMonitoredClass(&quiet, "Last");

  const std::string quiet_line = "  0         0|       0|       0| Quiet\r\n";
  const std::string last_line = "  3         0|       0|       0| Last\r\n";
  {
    const Monitored first;
    const Monitored copy = first;
    { const Monitored third; }
    EXPECT_EQ(Table(), kHeader + quiet_line + "  1 !       2|       3|       1| Monitored\r\n" + last_line);
    EXPECT_EQ(List(),
              "Quiet_count: 0\r\nQuiet_alive: 0\r\n"
              "Monitored_count: 3\r\nMonitored_alive: 2\r\n"
              "Last_count: 0\r\nLast_alive: 0\r\n");
  }
  for (int i = 0; i < 9; ++i) const Monitored more;
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new GroupsDigits));
  EXPECT_EQ(Table(), kHeader + quiet_line + "  1         0|      12|      12| Monitored\r\n" + last_line);
  std::locale::global(before);

  for (int i = 4; i < 1030; ++i) RegisterMonitoredClass(&quiet, "Filler");
  EXPECT_EQ(__MonitoringObjectIndex__(), 1030);
  const std::string full = Table();
  EXPECT_TRUE(full.ends_with("1023         0|       0|       0| Filler\r\n"));
}

}  // namespace
