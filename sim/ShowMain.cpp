// oba-evpn-show: looks at the tables an agent publishes in shared memory (oba-evpn-sim --publish
// NAME), from another process, read-only.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "sim/Published.h"

namespace {

const char* const usage = R"(usage: oba-evpn-show [--json] [--watch] [--wait SECONDS] AGENT TABLE
       oba-evpn-show [--wait SECONDS] AGENT   the tables AGENT publishes, and their sizes

Prints a table that the agent AGENT (oba-evpn-sim --publish AGENT) publishes in shared memory,
as aligned text with a header, or as JSON lines (one object a row, every value a string). It
attaches read-only: it never changes what it reads, and trusts none of it: a table whose bytes
are not what its writer left (a slot, a chain, a count, the change log) is reported as corrupt,
naming the slot, and nothing of it is printed.

options:
  --json    JSON lines
  --watch   follow the table: a "set" line for each row it holds, then one line a change ("set"
            and the row, "del" and the key; "reset" when every row may have changed, after which
            the rows follow as "set"), until SIGINT or SIGTERM; the writer leaving ("unmounted"),
            dying ("writer-gone") and coming back ("mounted", "writer-back"), stuck in the middle
            of a write ("writer-stuck") and going on ("writer-resumed"), and a corrupt row or
            change ("corrupt", the reason on standard error) are lines too
  --wait SECONDS
            how long a read waits for a writer in the middle of a write before calling it stuck
            (default 1; a write takes well under a microsecond)
  --help    this text

exit status: 0 printed; 2 the agent or the table cannot be read (no such agent or table, the
agent not running, the table corrupt, its writer stuck): the reason is on standard error

tables:
)";

// Exit status 2: the agent or the table cannot be read; the reason is on standard error.
constexpr int cannotRead = 2;

volatile std::sig_atomic_t stopAsked = 0;
void askStop(int) { stopAsked = 1; }

std::string jsonString(const std::string& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

class Printer {
 public:
  Printer(std::vector<std::string> columns, bool json)
      : columns_(std::move(columns)), json_(json) {}

  // The whole table: a header and aligned columns, or a JSON object a row.
  void table(const std::vector<Sim::Cells>& rows) const {
    if (json_) {
      for (const auto& r : rows) line("", r);
      return;
    }
    std::vector<std::size_t> width(columns_.size());
    for (std::size_t i = 0; i < columns_.size(); ++i) width[i] = columns_[i].size();
    for (const auto& r : rows) {
      for (std::size_t i = 0; i < r.size() && i < width.size(); ++i) {
        width[i] = std::max(width[i], r[i].size());
      }
    }
    auto print = [&](const std::vector<std::string>& cells) {
      std::string out;
      for (std::size_t i = 0; i < cells.size(); ++i) {
        out += cells[i];
        if (i + 1 < cells.size()) out.append(width[i] - cells[i].size() + 2, ' ');
      }
      std::cout << out << "\n";
    };
    print(columns_);
    for (const auto& r : rows) print(r);
  }

  // One change: "set", "del", "reset", "mounted", ... and the cells it concerns.
  void line(const std::string& change, const Sim::Cells& cells) const {
    if (json_) {
      std::string out = "{";
      if (!change.empty()) out += "\"change\":" + jsonString(change);
      for (std::size_t i = 0; i < cells.size() && i < columns_.size(); ++i) {
        if (out.size() > 1) out += ",";
        out += jsonString(columns_[i]) + ":" + jsonString(cells[i]);
      }
      std::cout << out << "}\n";
      return;
    }
    std::string out = change;
    for (const auto& c : cells) out += (out.empty() ? "" : " ") + c;
    std::cout << out << "\n";
  }

 private:
  std::vector<std::string> columns_;
  bool json_;
};

bool isStuck(const Shoal::CorruptionException& e) {
  return dynamic_cast<const Shoal::WriterStuckException*>(&e) != nullptr;
}

// What a read that failed says: a stuck writer, or a corrupt table (the slot is in the text).
std::string unreadable(const std::string& what, bool stuck, const std::string& agent,
                       const std::string& table) {
  if (stuck) {
    return "the writer of the table '" + table + "' of agent '" + agent + "' is stuck: " + what;
  }
  return "the table '" + table + "' of agent '" + agent + "' is corrupt: " + what;
}
std::string unreadable(const Shoal::CorruptionException& e, const std::string& agent,
                       const std::string& table) {
  return unreadable(e.what(), isStuck(e), agent, table);
}

// Attaches to the agent's table; answers why it cannot be read at all, or "".
std::string attach(Sim::TableView& view, const std::string& agent, const std::string& table) {
  switch (view.attach()) {
    case Shoal::MountState::failed:
      return "the table '" + table + "' of agent '" + agent + "' cannot be read: it is corrupt " +
             "or of another layout than this program reads (" + view.error() + ")";
    case Shoal::MountState::unmounted:
      return "no agent '" + agent + "' publishes the table '" + table + "' (no segment " +
             view.segmentName() + ")";
    case Shoal::MountState::mounted:
      break;
  }
  if (!view.writerAlive()) {
    return "the agent '" + agent + "' that published the table '" + table +
           "' is not running (its rows are what it left when it died)";
  }
  return "";
}

// Every row, once the whole segment has been checked; raises what the reads raise.
std::vector<Sim::Cells> checkedRows(Sim::TableView& view) {
  view.verify();
  return view.rows();
}

int listTables(const std::string& agent, std::chrono::nanoseconds wait) {
  std::vector<Sim::Cells> rows;
  std::vector<std::string> problems;
  for (const auto& t : Sim::publishedTables()) {
    auto view = t.view(agent);
    view->writerWaitIs(wait);
    try {
      if (!attach(*view, agent, t.name).empty()) continue;
      rows.push_back({t.name, std::to_string(checkedRows(*view).size()), t.what});
    } catch (const Shoal::CorruptionException& e) {
      rows.push_back({t.name, isStuck(e) ? "stuck" : "corrupt", t.what});
      problems.push_back(unreadable(e, agent, t.name));
    }
  }
  if (!rows.empty()) Printer({"table", "rows", "what"}, false).table(rows);
  std::cout.flush();
  for (const auto& p : problems) std::cerr << "oba-evpn-show: " << p << "\n";
  if (rows.empty()) {
    std::cerr << "oba-evpn-show: no running agent '" << agent << "' publishes any table\n";
    return cannotRead;
  }
  return problems.empty() ? 0 : cannotRead;
}

// What a watch has said of reads that failed: a stuck writer once, until it goes on; each
// corruption once, until reads succeed again.
class Trouble {
 public:
  Trouble(const Printer& printer, const std::string& agent, const std::string& table)
      : printer_(printer), agent_(agent), table_(table) {}
  void met(const std::string& what, bool stuck) {
    met_ = true;
    if (stuck ? stuck_ : what == corrupt_) return;
    printer_.line(stuck ? "writer-stuck" : "corrupt", {});
    std::cerr << "oba-evpn-show: " << unreadable(what, stuck, agent_, table_) << "\n";
    if (stuck) {
      stuck_ = true;
    } else {
      corrupt_ = what;
    }
  }
  void met(const Shoal::CorruptionException& e) { met(e.what(), isStuck(e)); }
  // Every row was read: whatever held the reads up is over.
  void readAll() {
    if (stuck_) printer_.line("writer-resumed", {});
    stuck_ = false;
    corrupt_.clear();
  }
  // A round of reads is over: one that met nothing ends the trouble too.
  void roundOver() {
    if (!met_) readAll();
    met_ = false;
  }

 private:
  const Printer& printer_;
  const std::string& agent_;
  const std::string& table_;
  bool stuck_ = false, met_ = false;
  std::string corrupt_;
};

// Every row as a "set" line ("reset" first when asked), once all of them have been read and
// checked; false, and the reason said, when they cannot be.
bool setLines(Sim::TableView& view, const Printer& printer, Trouble& trouble, bool reset) {
  std::vector<Sim::Cells> rows;
  try {
    rows = checkedRows(view);
  } catch (const Shoal::CorruptionException& e) {
    trouble.met(e);
    return false;
  }
  trouble.readAll();
  if (reset) printer.line("reset", {});
  for (const auto& r : rows) printer.line("set", r);
  return true;
}

int watch(Sim::TableView& view, const Printer& printer, const std::string& agent,
          const std::string& table) {
  std::signal(SIGINT, askStop);
  std::signal(SIGTERM, askStop);
  Trouble trouble(printer, agent, table);
  // The rows now, then every change: the lines replayed in order give the table. Rows that could
  // not be read are owed, and follow a "reset" once they can be.
  bool rowsOwed = !setLines(view, printer, trouble, false);
  bool alive = true;
  Shoal::MountState mount = Shoal::MountState::mounted;
  while (!stopAsked) {
    if (rowsOwed) rowsOwed = !setLines(view, printer, trouble, true);
    for (const auto& c : view.poll()) {
      switch (c.kind) {
        case Sim::TableView::Change::Kind::row:
          printer.line("set", c.cells);
          break;
        case Sim::TableView::Change::Kind::gone:
          printer.line("del", c.cells);
          break;
        case Sim::TableView::Change::Kind::all:
          rowsOwed = !setLines(view, printer, trouble, true);
          break;
        case Sim::TableView::Change::Kind::stuck:
        case Sim::TableView::Change::Kind::corrupt:
          // A stuck change is read again at each poll until the writer goes on.
          trouble.met(c.cells.front(), c.kind == Sim::TableView::Change::Kind::stuck);
          break;
        case Sim::TableView::Change::Kind::mount: {
          const char* what = c.mount == Shoal::MountState::mounted  ? "mounted"
                             : c.mount == Shoal::MountState::failed ? "failed"
                                                                    : "unmounted";
          printer.line(what, {});
          mount = c.mount;
          alive = true;
          break;
        }
      }
    }
    trouble.roundOver();
    // A writer that dies leaves its rows; say so once, and again when one comes back. One that
    // left normally has unmounted the table, which was said.
    if (mount == Shoal::MountState::mounted && alive != view.writerAlive()) {
      alive = !alive;
      printer.line(alive ? "writer-back" : "writer-gone", {});
    }
    std::cout.flush();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return 0;
}

// A wait in seconds: finite, from 0 to an hour.
bool readWait(const char* text, std::chrono::nanoseconds& wait) {
  char* end = nullptr;
  double s = std::strtod(text, &end);
  if (end == text || *end != '\0' || !std::isfinite(s) || s < 0 || s > 3600) return false;
  wait = std::chrono::nanoseconds(static_cast<std::int64_t>(s * 1e9));
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  bool json = false, follow = false;
  std::chrono::nanoseconds wait = std::chrono::seconds(1);
  std::vector<std::string> args;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      std::cout << usage;
      for (const auto& t : Sim::publishedTables())
        std::cout << "  " << t.name << ": " << t.what << "\n";
      return 0;
    } else if (a == "--json") {
      json = true;
    } else if (a == "--watch") {
      follow = true;
    } else if (a == "--wait") {
      if (i + 1 >= argc || !readWait(argv[i + 1], wait)) {
        std::cerr << "oba-evpn-show: --wait: SECONDS is a number from 0 to 3600, got '"
                  << (i + 1 < argc ? argv[i + 1] : "") << "'\n";
        return cannotRead;
      }
      ++i;
    } else if (a.starts_with("--")) {
      std::cerr << "oba-evpn-show: unknown option " << a << "\n" << usage;
      return cannotRead;
    } else {
      args.push_back(a);
    }
  }
  if (args.empty() || args.size() > 2) {
    std::cerr << usage;
    return cannotRead;
  }
  const std::string& agent = args[0];
  try {
    Sim::checkAgentName(agent);
  } catch (const Shoal::SegmentException& e) {
    std::cerr << "oba-evpn-show: '" << agent << "' cannot be an agent's name: " << e.what() << "\n";
    return cannotRead;
  }
  if (args.size() == 1) return listTables(agent, wait);

  const std::optional<Sim::PublishedTableKind> kind = Sim::publishedTable(args[1]);
  if (!kind) {
    std::cerr << "oba-evpn-show: no table '" << args[1] << "'; the tables are:";
    for (const auto& t : Sim::publishedTables()) std::cerr << " " << t.name;
    std::cerr << "\n";
    return cannotRead;
  }
  auto view = kind->view(agent);
  view->writerWaitIs(wait);
  if (std::string why = attach(*view, agent, kind->name); !why.empty()) {
    std::cerr << "oba-evpn-show: " << why << "\n";
    return cannotRead;
  }
  Printer printer(view->columns(), json);
  if (follow) return watch(*view, printer, agent, kind->name);
  // Nothing is printed before every row has been read and checked.
  std::vector<Sim::Cells> rows;
  try {
    rows = checkedRows(*view);
  } catch (const Shoal::CorruptionException& e) {
    std::cerr << "oba-evpn-show: " << unreadable(e, agent, kind->name) << "\n";
    return cannotRead;
  }
  printer.table(rows);
  return 0;
}
