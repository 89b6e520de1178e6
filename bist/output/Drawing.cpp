// SPDX-License-Identifier: MIT
#include "bist/output/Drawing.h"

#include <algorithm>
#include <map>
#include <sstream>

namespace {

/// What tests say of a part of the instrument.
struct Finding {
  std::string verdict;  ///< the worst one
  std::string test;     ///< that has found it
  std::string text;
};

/// From good to bad: what is worse decides.
constexpr const char* verdicts[] = {"", "skipped", "pass", "not tested", "fail"};

std::size_t rank(const std::string& verdict) {
  return static_cast<std::size_t>(std::find(std::begin(verdicts), std::end(verdicts), verdict) -
                                  std::begin(verdicts));
}

bool beginsWith(const std::string& text, const std::string& begin) {
  return text.compare(0, begin.size(), begin) == 0;
}

/// Calls it with each line that is the result of a test.
template <class Function>
void forEachTest(const Record& record, const Function& function) {
  for (const Json& section : record.sections) {
    for (const Json& line : section["lines"]) {
      if (isTest(line)) {
        function(line);
      }
    }
  }
}

void worsen(Finding& finding, const Json& line, const std::string& verdict) {
  if (rank(verdict) > rank(finding.verdict) || finding.test.empty()) {
    finding = {verdict, line["test"], line["failure"]};
  }
}

/// What the tests say whose names begin so.
Finding findingOf(const Record& record, const std::vector<std::string>& begins) {
  Finding finding;
  forEachTest(record, [&](const Json& line) {
    const std::string test = line["test"];
    if (std::any_of(begins.begin(), begins.end(),
                    [&](const std::string& begin) { return beginsWith(test, begin); })) {
      worsen(finding, line, line["verdict"]);
    }
  });
  return finding;
}

/// Whether a test has failed for errors that this device has latched: "root" or "upstream".
bool latched(const Json& line, const std::string& device) {
  if (line["verdict"] != "fail") {
    return false;
  }
  if (line["test"].get<std::string>().find("." + device) != std::string::npos) {
    return true;
  }
  for (const auto& [key, value] : line["figures"].items()) {
    if (beginsWith(key, device) && key.find("orrectableStatus") != std::string::npos &&
        value != "0x0") {
      return true;
    }
  }
  return false;
}

/// What is known of the ports, by name: the "record" of each.
std::map<std::string, Json> portsOf(const Record& record) {
  std::map<std::string, Json> ports;
  for (const Json& section : record.sections) {
    const Json data = section.value("data", Json());
    for (const Json& port : data.is_array() ? data : Json::array({data})) {
      if (port.is_object() && port.contains("record") && port.contains("name")) {
        ports[port["name"]] = port;
      }
    }
  }
  return ports;
}

/// A device's IDs as words; empty for what is not known.
std::string idsText(const Json& data, const char* key) {
  const std::string ids = data.is_object() ? data.value(key, "") : "";
  return ids == "0000:0000" ? "not found" : ids;
}

/// The data of a section; null without one.
Json dataOf(const Record& record, const std::string& key) {
  Json data;
  for (const Json& section : record.sections) {
    if (section["key"] == key) {
      data = section.value("data", Json());
    }
  }
  return data;
}

struct Box {
  double x;
  double y;
  double width;
  double height;
};

Xml::Attributes rectangle(const Box& box, const char* kind, const char* radius = "7") {
  return {{"class", kind},
          {"x", numberText(box.x)},
          {"y", numberText(box.y)},
          {"width", numberText(box.width)},
          {"height", numberText(box.height)},
          {"rx", radius}};
}

void addText(Xml& xml, double x, double y, const char* kind, const std::string& text) {
  xml.element("text", {{"class", kind}, {"x", numberText(x)}, {"y", numberText(y)}}, text);
}

void addWire(Xml& xml, const std::string& kind, double x1, double y1, double x2, double y2) {
  const std::string middle = numberText((x1 + x2) / 2);
  xml.empty("path", {{"class", kind},
                     {"d", "M" + numberText(x1) + " " + numberText(y1) + "H" + middle + "V" +
                               numberText(y2) + "H" + numberText(x2)}});
}

/// A sign for those who do not see the colours.
void addMark(Xml& xml, double x, double y, const std::string& verdict) {
  constexpr struct {
    const char* verdict;
    const char* path;
  } marks[] = {{"pass", "M-3.5 .5l2.5 2.5 4.5-5.5"},
               {"fail", "M-3-3l6 6M3-3l-6 6"},
               {"skipped", "M-3.5 0h7"},
               {"not tested", "M0-4v4.5M0 3.6v.2"}};
  for (const auto& [of, path] : marks) {
    if (verdict == of) {
      const Element mark(xml, "g",
                         {{"class", "mark"},
                          {"transform", "translate(" + numberText(x) + " " + numberText(y) + ")"}});
      xml.empty("circle", {{"r", "8"}});
      xml.empty("path", {{"d", path}});
    }
  }
}

/// A part of the instrument: it leads to its results.
void addPart(Xml& xml, const Box& box, const char* kind, const std::string& title,
             std::vector<std::string> details, const Finding& finding) {
  details.erase(std::remove(details.begin(), details.end(), ""), details.end());
  const std::string classes = std::string(kind) + " " + classOf(finding.verdict);
  const Element part(
      xml, finding.test.empty() ? "g" : "a",
      finding.test.empty()
          ? Xml::Attributes{{"class", classes}}
          : Xml::Attributes{{"class", classes}, {"href", "#" + anchorOf(finding.test)}});
  if (!finding.test.empty()) {
    xml.element("title", {}, title + ": " + finding.verdict + ", " + finding.text);
  }
  const bool frame = std::string(kind) == "outer";
  xml.empty("rect", rectangle(box, frame ? "box frame" : "box"));
  const double x = box.x + 12;
  double y = box.y + (frame ? 26 : box.height / 2 + 5 - 8 * static_cast<double>(details.size()));
  addMark(xml, x + 7, y - 5, finding.verdict);
  addText(xml, x + (finding.verdict.empty() ? 0 : 22), y, "title", title);
  for (const std::string& detail : details) {
    y += 17;
    addText(xml, x, y, "soft", detail);
  }
}

/// Opens a drawing, whose elements follow.
Xml::Attributes drawing(double width, double height, const char* label) {
  return {{"viewBox", "0 0 " + numberText(width) + " " + numberText(height)},
          {"width", numberText(width)},
          {"role", "img"},
          {"aria-label", label}};
}

// The places of the instrument's drawing: a row for each slot.
constexpr int slotCount = 6;
constexpr double firstRow = 66;
constexpr double rowHeight = 72;
constexpr double slotHeight = 58;
constexpr double slotLeft = 610;

double rowOf(int slot) { return firstRow + rowHeight * slot; }
double middleOf(int slot) { return rowOf(slot) + slotHeight / 2; }

constexpr struct {
  const char* name;
  int slot;
} mainPorts[] = {
    {"DownstreamPort1", 0}, {"DownstreamPort9", 1}, {"DownstreamPort7", 2}, {"DownstreamPort5", 3}};

class InstrumentDrawing {
 public:
  InstrumentDrawing(Xml& document, const Record& results)
      : xml(document),
        record(results),
        ports(portsOf(results)),
        slots(dataOf(results, "slots")),
        board(dataOf(results, "board")),
        shim(shimModule()) {}

  /// Whether any part of it has been looked at.
  bool isKnown() const {
    return board.is_object() || slots.is_array() || !ports.empty() || shim >= 0 ||
           !findingOf(record, {"slot"}).test.empty();
  }

  void draw() const {
    const bool hasSlots = !board.is_object() || board["kind"] == "SPB" || !ports.empty();
    const double height = hasSlots ? rowOf(slotCount) + 6 : 140;
    const Element svg(xml, "svg", drawing(shim < 0 ? 850 : 1066, height, "The instrument"));
    addBoard({8, 8, 520, height - 16});
    if (!hasSlots) {
      return;
    }
    addSwitches();
    for (int slot = 0; slot < slotCount; ++slot) {
      addSlot(slot);
    }
    if (shim >= 0) {
      addShim();
    }
  }

 private:
  int shimModule() const {
    const Json data = dataOf(record, "shim");
    if (data.is_object()) {
      return data["module"];
    }
    for (const char* const name : {"ShimPort1", "ShimPort5"}) {
      if (ports.count(name) != 0) {
        return ports.at(name)["slot"];
      }
    }
    return -1;
  }

  void addBoard(const Box& box) const {
    const Json& facts = record.facts.board;
    std::vector<std::string> details;
    if (board.is_object()) {
      details = {"identity " + board["id"].dump() + " (" + board["bits"].get<std::string>() + ")"};
    }
    addPart(xml, box, "outer",
            facts.is_object() ? facts["description"].get<std::string>() : "Board", details,
            findingOf(record, {"board."}));
    if (board.is_object()) {
      const auto attached = [&](const char* name, const char* key) {
        return std::string(name) + (board[key].get<bool>() ? " connected" : " not connected");
      };
      addText(xml, box.x + 22, box.y + box.height - 42, "soft", attached("PMB", "pmbConnected"));
      addText(xml, box.x + 22, box.y + box.height - 22, "soft", attached("IMB", "imbConnected"));
    }
  }

  /// The root port or the switch: what any port's test has seen of it.
  Finding deviceFinding(const char* device, const char* found, bool needsLink) const {
    Finding finding;
    for (const auto& [name, port] : ports) {
      const Json& results = port["record"];
      const bool there = results.value(found, false);
      const bool good = there && (!needsLink || results.value("rootLinkOk", false));
      const std::string first = name;
      forEachTest(record, [&, good = good](const Json& line) {
        const std::string test = line["test"];
        if (test.find(first + ".") != std::string::npos) {
          worsen(finding, line, good && !latched(line, device) ? "pass" : "fail");
        }
      });
    }
    return finding;
  }

  std::vector<std::string> deviceDetails(const char* ids) const {
    return {ports.empty() ? "" : idsText(ports.begin()->second["record"], ids)};
  }

  void addSwitches() const {
    const double middle = (middleOf(0) + middleOf(3)) / 2;
    const Finding root = deviceFinding("root", "rootPortFound", true);
    addWire(xml, wireClass(root.verdict, root.verdict == "pass"), 150, middle, 206, middle);
    addPart(xml, {28, middle - 36, 122, 72}, "inner", "Root port", deviceDetails("rootPortIds"),
            root);
    addPart(xml, {206, rowOf(0), 300, rowOf(3) - rowOf(0) + slotHeight}, "inner", "Switch",
            deviceDetails("upstreamIds"), deviceFinding("upstream", "upstreamFound", false));
    for (const auto& [name, slot] : mainPorts) {
      addPort(name, {310, middleOf(slot) - 22, 184, 44}, middleOf(slot));
    }
  }

  static std::string wireClass(const std::string& verdict, bool up) {
    return "wire " + classOf(verdict) + (up ? "" : " down");
  }

  /// A port of the main switch and the wire from it to its slot.
  void addPort(const std::string& name, const Box& box, double y) const {
    const auto port = ports.find(name);
    const Finding link = findingOf(record, {name + ".link"});
    std::vector<std::string> details;
    bool up = false;
    if (port != ports.end()) {
      const Json& results = port->second["record"];
      details = {idsText(results, "portIds")};
      up = results.value("downstreamLinkUp", false);
    }
    addWire(xml, wireClass(link.verdict, up), box.x + box.width, y, slotLeft, y);
    addPart(xml, box, "inner", name, details,
            findingOf(record, {name + ".", "expected." + name + "."}));
  }

  /// What a slot has room for: the whole text is among the results.
  static std::string cut(const std::string& text) {
    constexpr std::size_t room = 36;
    return text.size() <= room ? text : text.substr(0, room - 3) + "...";
  }

  void addSlot(int slot) const {
    const std::string name = "slot" + std::to_string(slot);
    const Finding finding = findingOf(record, {name + ".", "expected." + name + "."});
    std::string detail = finding.test.empty() ? "not looked at" : finding.text;
    Json known;
    for (const Json& looked : slots.is_array() ? slots : Json::array()) {
      known = looked["slot"] == slot ? looked : known;
    }
    if (known.is_object()) {
      const bool controlled = !known["controller"].is_null();
      detail = known["present"].get<bool>() ? "present" : "empty";
      detail += !controlled ? "" : known["on"].get<bool>() ? ", on" : ", off";
      detail += slot > 3 ? "" : known["linkUp"].get<bool>() ? ", link up" : ", link down";
    }
    std::vector<std::string> details{cut(detail)};
    if (known.is_object() && (finding.verdict == "fail" || finding.verdict == "not tested")) {
      details.push_back(cut(finding.text));
    }
    addPart(xml, {slotLeft, rowOf(slot), 230, slotHeight}, "part", "Slot " + std::to_string(slot),
            details, finding);
  }

  void addShim() const {
    const std::string module = "module" + std::to_string(shim);
    const double top = std::max(rowOf(shim) - 40, 8.0);
    const Json data = dataOf(record, "shim");
    const Box box{874, top, 184, 152};
    addWire(xml, "wire none", slotLeft + 230, middleOf(shim), box.x, middleOf(shim));
    addPart(xml, {box.x, box.y, box.width, box.height}, "outer", "Shim switch",
            {idsText(data, "shimUpstreamIds")}, findingOf(record, {module + ".shim"}));
    double y = top + 48;
    for (const char* const name : {"ShimPort1", "ShimPort5"}) {
      addShimPort(name, module, data, {box.x + 12, y, box.width - 24, 44});
      y += 50;
    }
  }

  void addShimPort(const std::string& name, const std::string& module, const Json& data,
                   const Box& box) const {
    const bool tested = ports.count(name) != 0;
    const std::string ids =
        tested ? idsText(ports.at(name)["record"], "portIds") : idsText(data, name.c_str());
    addPart(xml, box, "inner", name, {ids}, findingOf(record, {module + "." + name + "."}));
  }

  Xml& xml;
  const Record& record;
  const std::map<std::string, Json> ports;
  const Json slots;
  const Json board;
  const int shim;
};

/// A bus, or what is at the end of a branch.
struct Node {
  std::string name;
  std::string note;
  Finding finding;
  std::vector<Node> below;

  Node& child(const std::string& childName) {
    for (Node& node : below) {
      if (node.name == childName) {
        return node;
      }
    }
    below.push_back({childName, "", {}, {}});
    return below.back();
  }
};

/// The buses of "/sys/devices/i2c-2/i2c-10/10-0041/gpio/gpiochip512", and then "expander 10-0041".
std::vector<std::string> chainOf(const std::string& path) {
  std::vector<std::string> chain;
  std::string device;
  std::istringstream names(path);
  for (std::string name; std::getline(names, name, '/') && name != "gpio";) {
    if (beginsWith(name, "i2c-")) {
      chain.push_back(name);
    }
    device = name;
  }
  chain.push_back("expander " + device);
  return chain;
}

Node& insert(Node& root, const std::vector<std::string>& chain) {
  Node* node = &root;
  for (const std::string& name : chain) {
    node = &node->child(name);
  }
  return *node;
}

void insertModule(Node& root, const Json& topology, const Finding& finding) {
  const std::string module = "module " + topology["module"].dump();
  const std::string top = topology.value("topBus", "");
  const std::string path = topology.value("expander", "");
  if (top.empty()) {
    return;
  }
  std::vector<std::string> chain = path.empty() ? std::vector<std::string>{} : chainOf(path);
  if (!path.empty()) {
    Node& expander = insert(root, chain);
    expander.note = module;
    expander.finding = finding;
  }
  const auto end = std::find(chain.begin(), chain.end(), top);
  chain.erase(end == chain.end() ? chain.begin() : end, chain.end());
  chain.push_back(top);
  for (const char* const key : {"systemBus", "solutionBus"}) {
    const std::string bus = topology.value(key, "");
    if (!bus.empty() && bus != top) {
      std::vector<std::string> branch = chain;
      branch.push_back(bus);
      insert(root, branch).note = key == std::string("systemBus") ? "system bus" : "solution bus";
    }
  }
}

Node busesOf(const Record& record) {
  Node root;
  const Json slots = dataOf(record, "slots");
  for (const Json& slot : slots.is_array() ? slots : Json::array()) {
    const std::string number = slot["slot"].dump();
    const Finding finding = findingOf(record, {"slot" + number + ".controller"});
    if (!slot["controller"].is_null()) {
      Node& expander = insert(root, chainOf(slot["controller"]));
      expander.note = "slot " + number;
      expander.finding = finding;
    } else if (finding.verdict == "fail") {
      root.below.push_back({"no expander", "slot " + number, finding, {}});
    }
  }
  const Json topology = dataOf(record, "topology");
  if (topology.is_object()) {
    insertModule(root, topology,
                 findingOf(record, {"module" + topology["module"].dump() + ".topology"}));
  }
  return root;
}

constexpr double busWidth = 112;
constexpr double busGap = 40;
constexpr double leafWidth = 190;
constexpr double busRow = 54;

bool isBus(const Node& node) { return beginsWith(node.name, "i2c-"); }

double widthOf(const Node& node) {
  double width = 0;
  for (const Node& below : node.below) {
    width = std::max(width, busGap + widthOf(below));
  }
  return width + (isBus(node) ? busWidth : leafWidth);
}

double heightOf(const Node& node) {
  double height = 0;
  for (const Node& below : node.below) {
    height += heightOf(below);
  }
  return std::max(height, busRow);
}

/// Draws a branch whose left upper corner this is.
void drawBranch(Xml& xml, const Node& node, double x, double y) {
  const double middle = y + heightOf(node) / 2;
  const double width = isBus(node) ? busWidth : leafWidth;
  for (const Node& below : node.below) {
    addWire(xml, "bus", x + width, middle, x + width + busGap, y + heightOf(below) / 2);
    drawBranch(xml, below, x + width + busGap, y);
    y += heightOf(below);
  }
  const double height = node.note.empty() ? 34 : 44;
  addPart(xml, {x, middle - height / 2, width, height}, isBus(node) ? "plain" : "part", node.name,
          {node.note}, node.finding);
}

void drawBuses(Xml& xml, const Node& root) {
  double width = 0;
  for (const Node& node : root.below) {
    width = std::max(width, widthOf(node));
  }
  const Element svg(xml, "svg", drawing(width + 16, heightOf(root) + 4, "I2C buses"));
  double y = 2;
  for (const Node& node : root.below) {
    drawBranch(xml, node, 8, y);
    y += heightOf(node);
  }
}

void addLegend(Xml& xml) {
  const Element legend(xml, "div", {{"class", "legend"}});
  for (const char* const verdict : {"pass", "fail", "skipped", "not tested"}) {
    const Element entry(xml, "span");
    {
      const Element svg(xml, "svg", {{"viewBox", "-8 -8 16 16"}, {"class", classOf(verdict)}});
      addMark(xml, 0, 0, verdict);
    }
    xml.text(verdict);
  }
  xml.element("span", {}, "dashed: not looked at, or a link that is down");
}

}  // namespace

std::string classOf(const std::string& verdict) {
  return verdict == "not tested" ? "not-tested" : verdict.empty() ? "none" : verdict;
}

std::string anchorOf(const std::string& test) { return "test-" + test; }

void drawInstrument(Xml& xml, const Record& record) {
  const InstrumentDrawing instrument(xml, record);
  const Node buses = busesOf(record);
  if (!instrument.isKnown() && buses.below.empty()) {
    return;
  }
  const Element section(xml, "section");
  if (instrument.isKnown()) {
    xml.element("h2", {}, "Instrument");
    instrument.draw();
  }
  if (!buses.below.empty()) {
    xml.element("h2", {}, "I2C");
    drawBuses(xml, buses);
  }
  addLegend(xml);
}
