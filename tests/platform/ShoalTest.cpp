// A Shoal table embedded in an entity: the writer's operations as readers see them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Shoal/KivShoal.h"

namespace {

struct Row {
  int k = 0;
  int v = 0;
  int key() const { return k; }
};

class Mapping : public Kiv::Entity<Mapping> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<Mapping> {
   public:
    KIV_NOTIFIEE_SHOAL_TABLE(row, Row, int)
  };
  KIV_SHOAL_TABLE(row, Row, int, Row)
};

struct Reader : Mapping::NotifieeConst {
  std::vector<std::string> log;
  void onRow(const int& k) override {
    auto l = notifier()->row(k);
    log.push_back(std::to_string(k) + (l ? "=" + std::to_string(l.row.v) : " gone"));
  }
  void onRowMountStatus() override { log.push_back("mount"); }
};

TEST(ShoalTable, ReadersSeeEveryWriteAndLookupsNeverThrow) {
  Kiv::Ptr<Mapping> m = new Mapping;
  m->rowMount(Shoal::Role::writer);
  Reader r;
  r.notifierIs(m);

  m->rowIs(Row{1, 10});
  m->rowIs(Row{1, 11});  // overwrite: one notification for the key
  m->rowCommit(Row{2, 20});
  m->rowDel(3);  // absent: only the notification
  EXPECT_EQ(r.log, (std::vector<std::string>{"1=10", "1=11", "2=20", "3 gone"}));
  EXPECT_FALSE(m->row(3).found);
  EXPECT_EQ(m->row(3).row.v, 0);

  r.log.clear();
  r.onRowkivImmediate();  // replay of every row present
  EXPECT_EQ(r.log.size(), 2u);
  m->rowNotifyMountStatus();
  EXPECT_EQ(r.log.back(), "mount");

  r.log.clear();
  m->rowDelAll();
  EXPECT_EQ(r.log.size(), 2u);
  EXPECT_EQ(m->rows(), 0u);
}

TEST(ShoalTableDeathTest, AWriteToAnUnmountedTableIsAnAssertion) {
  Kiv::Ptr<Mapping> m = new Mapping;
  EXPECT_DEATH(m->rowIs(Row{1, 1}), "table mounted as writer");
  m->rowMount(Shoal::Role::reader);
  EXPECT_DEATH(m->rowDel(1), "table mounted as writer");
}

}  // namespace

// A table of values keyed by what the writer gives, with a row marked corrupt as a torn
// shared-memory read would leave it.
class Labels : public Kiv::Entity<Labels> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<Labels> {
   public:
    KIV_NOTIFIEE_SHOAL_TABLE(label, Label, int)
  };
  KIV_SHOAL_MAP(label, Label, int, std::string)
};

TEST(ShoalTable, ACorruptRowRaisesOnReadUntilTheWriterRewritesIt) {
  Kiv::Ptr<Labels> t = new Labels;
  t->labelMount(Shoal::Role::writer);
  t->labelIs(1, "one");
  t->labelIs(2, "two");
  t->labelCorruptIs(1);
  EXPECT_THROW(t->label(1), Shoal::CorruptionException);
  try {
    t->label(1);
  } catch (const Shoal::CorruptionException& e) {
    EXPECT_STREQ(e.what(), "corrupt row 1");
  }
  EXPECT_EQ(t->label(2).row, "two");  // other rows read as before
  EXPECT_EQ(t->labels(), 2u);         // and a walk still names the corrupt key

  t->labelIs(1, "uno");
  EXPECT_EQ(t->label(1).row, "uno");
  t->labelCorruptIs(2);
  t->labelDel(2);
  EXPECT_FALSE(t->label(2).found);  // deleting the row clears the mark too
}
