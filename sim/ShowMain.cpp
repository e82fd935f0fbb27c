// oba-evpn-show: looks at the tables an agent publishes in shared memory (oba-evpn-sim --publish
// NAME), from another process, read-only.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "sim/Published.h"

namespace {

const char* const usage = R"(usage: oba-evpn-show [--json] [--watch] AGENT TABLE
       oba-evpn-show AGENT                  the tables AGENT publishes, and their sizes

Prints a table that the agent AGENT (oba-evpn-sim --publish AGENT) publishes in shared memory,
as aligned text with a header, or as JSON lines (one object a row, every value a string). It
attaches read-only: it never changes what it reads.

options:
  --json    JSON lines
  --watch   follow the table: a "set" line for each row it holds, then one line a change ("set"
            and the row, "del" and the key; "reset" when every row may have changed, after which
            the rows follow as "set"), until SIGINT or SIGTERM; the writer leaving ("unmounted"),
            dying ("writer-gone") and coming back ("mounted", "writer-back") are lines too
  --help    this text

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

// Attaches to the agent's table; answers why it cannot be read, or "".
std::string attach(Sim::TableView& view, const std::string& agent, const std::string& table) {
  switch (view.attach()) {
    case Shoal::MountState::failed:
      return "the table '" + table + "' of agent '" + agent + "' is of another layout than this " +
             "program reads (" + view.error() + ")";
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

int listTables(const std::string& agent) {
  std::vector<Sim::Cells> rows;
  for (const auto& t : Sim::publishedTables()) {
    auto view = t.view(agent);
    if (!attach(*view, agent, t.name).empty()) continue;
    rows.push_back({t.name, std::to_string(view->rows().size()), t.what});
  }
  if (!rows.empty()) Printer({"table", "rows", "what"}, false).table(rows);
  if (rows.empty()) {
    std::cerr << "oba-evpn-show: no running agent '" << agent << "' publishes any table\n";
    return cannotRead;
  }
  return 0;
}

int watch(Sim::TableView& view, const Printer& printer) {
  std::signal(SIGINT, askStop);
  std::signal(SIGTERM, askStop);
  bool alive = true;
  Shoal::MountState mount = Shoal::MountState::mounted;
  while (!stopAsked) {
    for (const auto& c : view.poll()) {
      switch (c.kind) {
        case Sim::TableView::Change::Kind::row:
          printer.line("set", c.cells);
          break;
        case Sim::TableView::Change::Kind::gone:
          printer.line("del", c.cells);
          break;
        case Sim::TableView::Change::Kind::all:
          printer.line("reset", {});
          for (const auto& r : view.rows()) printer.line("set", r);
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

}  // namespace

int main(int argc, char** argv) {
  bool json = false, follow = false;
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
    Shoal::segmentName(agent, "mapping");
  } catch (const Shoal::SegmentException&) {
    std::cerr << "oba-evpn-show: '" << agent << "' cannot be an agent's name\n";
    return cannotRead;
  }
  if (args.size() == 1) return listTables(agent);

  const Sim::PublishedTableKind* kind = Sim::publishedTable(args[1]);
  if (!kind) {
    std::cerr << "oba-evpn-show: no table '" << args[1] << "'; the tables are:";
    for (const auto& t : Sim::publishedTables()) std::cerr << " " << t.name;
    std::cerr << "\n";
    return cannotRead;
  }
  auto view = kind->view(agent);
  if (std::string why = attach(*view, agent, kind->name); !why.empty()) {
    std::cerr << "oba-evpn-show: " << why << "\n";
    return cannotRead;
  }
  Printer printer(view->columns(), json);
  if (!follow) {
    printer.table(view->rows());
    return 0;
  }
  // The rows now, then every change: the lines replayed in order give the table.
  for (const auto& r : view->rows()) printer.line("set", r);
  return watch(*view, printer);
}
