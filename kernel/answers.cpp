// SPDX-License-Identifier: MIT
// Writes down, a line each, what the kernel, libudev and libpciaccess answer in the situations that
// the library meets. On the real kernel and on the simulated instrument these lines are the same.

#include <dirent.h>
#include <fcntl.h>
#include <libudev.h>
#include <pciaccess.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace {

const std::string gpio = "/sys/class/gpio/";
const std::string i2c = "/sys/bus/i2c/devices/";
const std::string pci = "/sys/bus/pci/devices/";

std::string errorOf(int error) { return error == 0 ? "ok" : strerrorname_np(error); }

/// Text with what cannot be seen in it shown.
std::string shown(const std::string& text) {
  std::string result = "\"";
  for (const char character : text) {
    char hexadecimal[8];
    std::snprintf(hexadecimal, sizeof hexadecimal, "\\x%02x",
                  static_cast<unsigned char>(character));
    const bool visible = character >= ' ' && character <= '~';
    result += character == '\n' ? "\\n" : visible ? std::string(1, character) : hexadecimal;
  }
  return result + "\"";
}

void say(const std::string& situation, const std::string& answer) {
  std::printf("%s: %s\n", situation.c_str(), answer.c_str());
}

std::string lastPartOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// Files

std::string readFrom(int file, std::size_t length) {
  std::string content(length, '\0');
  const ssize_t count = read(file, content.data(), length);
  return count < 0 ? errorOf(errno) : shown(content.substr(0, static_cast<std::size_t>(count)));
}

std::string contentOf(const std::string& path) {
  const int file = open(path.c_str(), O_RDONLY);
  if (file < 0) {
    return "open " + errorOf(errno);
  }
  std::string content = readFrom(file, 4096);
  close(file);
  return content;
}

std::string writeTo(const std::string& path, const std::string& text, int flags = O_WRONLY) {
  const int file = open(path.c_str(), flags);
  if (file < 0) {
    return "open " + errorOf(errno);
  }
  const ssize_t count = write(file, text.data(), text.size());
  std::string answer = count < 0 ? errorOf(errno) : std::to_string(count);
  close(file);
  return answer;
}

void sayContent(const std::string& path) { say("read " + path, contentOf(path)); }

void sayWrite(const std::string& path, const std::string& text) {
  say("write " + path + " " + shown(text), writeTo(path, text));
}

void sayMode(const std::string& path) {
  struct stat status {};
  char mode[16];
  const int error = stat(path.c_str(), &status) == 0 ? 0 : errno;
  std::snprintf(mode, sizeof mode, "%06o", status.st_mode);
  say("stat " + path, error != 0 ? errorOf(error) : mode);
}

std::set<std::string> entriesOf(const std::string& path) {
  std::set<std::string> entries;
  if (DIR* const directory = opendir(path.c_str())) {
    while (const dirent* const entry = readdir(directory)) {
      entries.insert(entry->d_name);
    }
    closedir(directory);
  }
  return entries;
}

/// Those of the names that a directory has, whatever else there is.
void sayEntries(const std::string& path, const std::vector<std::string>& names) {
  const std::set<std::string> entries = entriesOf(path);
  std::string found;
  for (const std::string& name : names) {
    found += entries.count(name) == 0 ? "" : " " + name;
  }
  say("entries of " + path, found);
}

void sayLink(const std::string& path) {
  char target[4096];
  const ssize_t length = readlink(path.c_str(), target, sizeof target);
  say("link " + path, length < 0
                          ? errorOf(errno)
                          : lastPartOf(std::string(target, static_cast<std::size_t>(length))));
}

// GPIO lines

constexpr const char* numbers[] = {"140",
                                   "140",
                                   "141\n",
                                   " 142",
                                   "142 ",
                                   "0x8f",
                                   "0217",
                                   "+144",
                                   "145x",
                                   "",
                                   "\n",
                                   "x",
                                   "-1",
                                   "31",
                                   "192",
                                   "1000",
                                   "44",
                                   "4294967436",
                                   "99999999999999999999",
                                   "140\n\n"};

void exportLines() {
  for (const char* const file : {"export", "unexport", "export"}) {
    for (const char* const number : numbers) {
      sayWrite(gpio + file, number);
    }
  }
  for (const char* const file : {"export", "unexport"}) {
    say("read " + gpio + file, contentOf(gpio + file));
    say("read and write " + gpio + file, writeTo(gpio + file, "140", O_RDWR));
    say("truncate " + gpio + file, writeTo(gpio + file, "140", O_WRONLY | O_TRUNC));
    say("append to " + gpio + file, writeTo(gpio + file, "140", O_WRONLY | O_APPEND));
    sayMode(gpio + file);
  }
  sayWrite(gpio + "export", "140");
  sayEntries(gpio, {".", "..", "export", "unexport", "gpio140", "gpio141", "gpio143", "gpio144",
                    "gpio31", "gpio44", "gpio192", "gpiochip512", "gpiochip516"});
}

struct Step {
  const char* attribute;
  const char* text;
};

/// Writes that depend on those before.
constexpr Step steps[] = {
    {"value", "1"},        {"value", "x"},        {"direction", "up"},
    {"direction", ""},     {"direction", "IN"},   {"direction", "out\n"},
    {"value", "1"},        {"value", "0"},        {"value", "2"},
    {"value", "-1"},       {"value", "0x0"},      {"value", "1\n"},
    {"value", "1\n\n"},    {"value", ""},         {"value", "x"},
    {"value", "1x"},       {"value", " 0"},       {"value", "99999999999"},
    {"direction", "high"}, {"direction", "low"},  {"direction", "out"},
    {"active_low", "1"},   {"value", "1"},        {"active_low", "x"},
    {"direction", "high"}, {"active_low", "0"},   {"edge", "rising"},
    {"direction", "in"},   {"edge", "rising\n"},  {"edge", "up"},
    {"edge", "both"},      {"direction", "out"},  {"direction", "in\n"},
    {"edge", "none"},      {"direction", "inn"},  {"direction", "out "},
    {"active_low", "2"},   {"active_low", "0\n"}, {"direction", "in"},
};

void useLine() {
  const std::string line = gpio + "gpio140/";
  const char* const attributes[] = {"direction", "value", "active_low", "edge"};
  const auto sayAll = [&] {
    std::string answer;
    for (const char* const attribute : attributes) {
      answer += contentOf(line + attribute) + " ";
    }
    say("then", answer);
  };
  sayAll();
  for (const Step& step : steps) {
    sayWrite(line + step.attribute, step.text);
    sayAll();
  }
  for (const char* const attribute : attributes) {
    sayMode(line + attribute);
    say("truncate " + line + attribute, writeTo(line + attribute, "", O_WRONLY | O_TRUNC));
  }
  sayEntries(line, {"value", "direction", "active_low", "edge", "base"});
  for (const char* const missing :
       {"gpio31/value", "gpio44/value", "gpio192/direction", "gpio-1/value", "gpio140",
        "gpio140/none", "gpiochip512/none"}) {
    sayContent(gpio + missing);
    sayWrite(gpio + missing, "1");
  }
}

void useOpenLine() {
  writeTo(gpio + "gpio140/direction", "out");
  const std::string value = gpio + "gpio140/value";
  const int file = open(value.c_str(), O_RDWR);
  say("short read", readFrom(file, 1));
  say("the rest", readFrom(file, 10));
  say("past the end", readFrom(file, 10));
  say("written through it", errorOf(pwrite(file, "1", 1, 0) == 1 ? 0 : errno));
  say("at the end still", readFrom(file, 10));
  lseek(file, 0, SEEK_SET);
  say("from the start", readFrom(file, 10));
  writeTo(value, "0");
  char text[4] = "";
  const ssize_t again = pread(file, text, 3, 0);
  say("by offset", std::to_string(again) + " " + shown(text));
  say("at offset 1", errorOf(pread(file, text, 3, 1) == 1 ? 0 : errno));
  say("written at offset 1", errorOf(pwrite(file, "1", 1, 1) == 1 ? 0 : errno));
  sayContent(value);
  close(file);
}

/// As the library writes and reads.
void useStreams() {
  const std::string line = gpio + "gpio140/";
  const struct {
    std::string file;
    const char* text;
  } cases[] = {{gpio + "export", "140"},   {gpio + "export", "1000"}, {line + "direction", "in"},
               {line + "direction", "up"}, {line + "value", "1"},     {line + "none", "1"}};
  for (const auto& test : cases) {
    std::FILE* const stream = std::fopen(test.file.c_str(), "w");
    std::string answer = "open " + errorOf(stream == nullptr ? errno : 0);
    if (stream != nullptr) {
      answer += ", print " + std::to_string(std::fprintf(stream, "%s", test.text));
      answer += ", close " + errorOf(std::fclose(stream) == 0 ? 0 : errno);
    }
    say("stdio " + test.file + " " + test.text, answer);
    std::ofstream file(test.file);
    answer = std::string("open ") + (file.is_open() ? "yes" : "no");
    file << test.text;
    answer += file.good() ? ", put" : ", not put";
    file.close();
    say("stream " + test.file + " " + test.text,
        answer + (file.good() ? ", closed" : ", not closed"));
  }
  for (const char* const attribute : {"value", "direction", "none"}) {
    std::ifstream file(line + attribute);
    std::string text;
    const bool got = static_cast<bool>(std::getline(file, text));
    say("getline " + line + attribute, (got ? "" : "not ") + shown(text));
    std::FILE* const stream = std::fopen((line + attribute).c_str(), "r");
    char word[16] = "";
    if (stream != nullptr) {
      const int count = std::fscanf(stream, "%15s", word);
      say("fscanf " + line + attribute, std::to_string(count) + shown(word));
      std::fclose(stream);
    }
  }
}

// I2C devices

void lookAtDevices() {
  for (const char* const device : {"10-0041", "20-0041", "11-0050", "2-0070", "0-0074", "9-0041"}) {
    sayContent(i2c + device + "/name");
    sayEntries(i2c + device, {".", "..", "name", "uevent", "subsystem", "driver", "gpio",
                              "channel-0", "channel-7", "channel-8"});
    sayLink(i2c + device);
    sayLink(i2c + device + "/driver");
  }
  sayWrite(i2c + "10-0041/name", "x");
  sayEntries(i2c + "10-0041/gpio", {".", "..", "gpiochip512", "gpiochip516"});
  for (const char* const attribute : {"base", "ngpio", "label", "none"}) {
    sayContent(i2c + "30-0041/gpio/gpiochip516/" + attribute);
  }
  sayContent(i2c + "30-0041/gpio");
  for (const char* const link :
       {"2-0070/channel-0", "2-0070/channel-7", "2-0070/channel-8", "11-0071/channel-2",
        "i2c-30/mux_device", "i2c-2/mux_device", "i2c-11", "30-0041/subsystem"}) {
    sayLink(i2c + link);
  }
  for (const char* const name : {"gpio_module1_power_en", "gpio_module1_seq_done",
                                 "gpio_2k_4k_b_power_en", "gpio_module3_power_en"}) {
    sayLink(std::string("/sys/platform/") + name);
    sayContent(std::string("/sys/platform/") + name + "/value");
    sayContent(std::string("/sys/platform/") + name + "/direction");
  }
  sayWrite("/sys/platform/gpio_module1_seq_done/value", "1");
  sayWrite("/sys/platform/gpio_module1_power_en/value", "x");
  sayWrite("/sys/platform/gpio_module1_power_en/value", "1");
}

void lookAtNodes() {
  for (const char* const device :
       {"11-0050", "10-0050", "0-0053", "0-0055", "0-005a", "0-0074", "10-0041"}) {
    for (const char* const property : {"id", "top", "system", "solution", "2k4k"}) {
      sayContent(i2c + device + "/of_node/" + property);
    }
  }
  sayWrite(i2c + "11-0050/of_node/id", "7");
  sayMode(i2c + "11-0050/of_node/id");
}

void listByUdev(const char* attribute, const char* value) {
  udev* const context = udev_new();
  udev_enumerate* const enumeration = udev_enumerate_new(context);
  udev_enumerate_add_match_subsystem(enumeration, "i2c");
  if (attribute != nullptr) {
    udev_enumerate_add_match_sysattr(enumeration, attribute, value);
  }
  const int result = udev_enumerate_scan_devices(enumeration);
  std::string found;
  for (udev_list_entry* entry = udev_enumerate_get_list_entry(enumeration); entry != nullptr;
       entry = udev_list_entry_get_next(entry)) {
    found += std::string(" ") + udev_list_entry_get_name(entry);
  }
  say(std::string("udev ") + (attribute == nullptr ? "all" : attribute) + " " + value,
      std::to_string(result) + found);
  udev_enumerate_unref(enumeration);
  udev_unref(context);
}

void openByUdev(const std::string& path) {
  udev* const context = udev_new();
  udev_device* const device = udev_device_new_from_syspath(context, path.c_str());
  say("udev " + path, errorOf(device == nullptr ? errno : 0));
  for (const char* const attribute :
       {"name", "of_node/id", "of_node/2k4k", "of_node/top", "gpio", "none"}) {
    const char* const value = udev_device_get_sysattr_value(device, attribute);
    say(std::string("udev ") + attribute, value == nullptr ? "none" : shown(value));
  }
  udev_device_unref(device);
  udev_unref(context);
}

void askUdev() {
  listByUdev(nullptr, "");
  for (const char* const id : {"1", "4", "12", "14", "", "1*", "99"}) {
    listByUdev("of_node/id", id);
  }
  listByUdev("name", "pca9536");
  listByUdev("name", "pmb");
  for (const char* const path : {"10-0041", "10-0050", "0-005a", "0-0055", "9-0041"}) {
    openByUdev(i2c + path);
  }
  openByUdev("/sys/none");
  openByUdev("none");
}

// PCI devices

constexpr struct {
  int bus;
  std::uint32_t device;
} places[] = {{0, 0}, {1, 0}, {2, 1}, {2, 5}, {2, 7}, {2, 9},
              {6, 0}, {7, 1}, {7, 5}, {2, 2}, {3, 0}};

void findPciDevices() {
  say("pci_system_init", std::to_string(pci_system_init()));
  for (const auto& place : places) {
    pci_device* const device =
        pci_device_find_by_slot(0, static_cast<std::uint32_t>(place.bus), place.device, 0);
    const std::string name = std::to_string(place.bus) + "." + std::to_string(place.device);
    if (device == nullptr) {
      say(name, "none");
      continue;
    }
    pci_device* const parent = pci_device_get_parent_bridge(device);
    int primary = -1;
    int secondary = -1;
    int subordinate = -1;
    const int result = pci_device_get_bridge_buses(device, &primary, &secondary, &subordinate);
    char text[160];
    std::snprintf(text, sizeof text, "%04x:%04x class %06x parent %d.%d buses %d: %d %d %d",
                  device->vendor_id, device->device_id, device->device_class,
                  parent == nullptr ? -1 : parent->bus, parent == nullptr ? -1 : parent->dev,
                  result, primary, secondary, subordinate);
    say(name, text);
  }
}

/// Accesses of each width; the registers are the switch's own.
void accessPciDevice() {
  pci_device* const device = pci_device_find_by_slot(0, 1, 0, 0);
  std::uint32_t before = 0;
  pci_device_cfg_read_u32(device, &before, 0x230);
  pci_device_cfg_write_u32(device, 0x01020304, 0x230);
  pci_device_cfg_write_u16(device, 0xABCD, 0x232);
  pci_device_cfg_write_u8(device, 0x77, 0x231);
  for (const std::uint32_t offset :
       {0x230U, 0x231U, 0x232U, 0x233U, 0xFFCU, 0xFFDU, 0xFFEU, 0xFFFU, 0x1000U, 0x2000U}) {
    std::uint8_t byte = 0x55;
    std::uint16_t word = 0x5555;
    std::uint32_t number = 0x55555555;
    const int results[] = {pci_device_cfg_read_u8(device, &byte, offset),
                           pci_device_cfg_read_u16(device, &word, offset),
                           pci_device_cfg_read_u32(device, &number, offset),
                           pci_device_cfg_write_u8(device, byte, offset),
                           pci_device_cfg_write_u16(device, word, offset),
                           pci_device_cfg_write_u32(device, number, offset)};
    char text[160];
    std::snprintf(text, sizeof text, "%x %x %x", byte, word, number);
    std::string answer = text;
    for (const int result : results) {
      answer += " " + errorOf(result);
    }
    std::snprintf(text, sizeof text, "pci access at %x", offset);
    say(text, answer);
  }
  std::uint8_t block[16] = {};
  for (const pciaddr_t offset : {0x230U, 0xFF8U, 0x1000U}) {
    pciaddr_t count = 99;
    const int result = pci_device_cfg_read(device, block, offset, sizeof block, &count);
    say("pci block at " + std::to_string(offset), errorOf(result) + " " + std::to_string(count));
  }
  pci_device_cfg_write_u32(device, before, 0x230);
}

void accessConfigFile() {
  const std::string name = pci + "0000:01:00.0/config";
  sayMode(name);
  struct stat status {};
  stat(name.c_str(), &status);
  say("size of it", std::to_string(status.st_size));
  const int file = open(name.c_str(), O_RDWR);
  for (const off_t offset : {0x230, 0x231, 0xFFC, 0xFFD, 0xFFF, 0x1000, 0x1001}) {
    for (const std::size_t length : {1U, 2U, 3U, 4U, 8U}) {
      char bytes[8] = {};
      const ssize_t got = pread(file, bytes, length, offset);
      const std::string read = got < 0 ? errorOf(errno) : std::to_string(got);
      const ssize_t put = pwrite(file, bytes, length, offset);
      say("config " + std::to_string(offset) + " " + std::to_string(length),
          read + " " + (put < 0 ? errorOf(errno) : std::to_string(put)));
    }
  }
  close(file);
  for (const char* const attribute : {"vendor", "device", "class", "none"}) {
    sayContent(pci + "0000:02:05.0/" + attribute);
  }
}

}  // namespace

int main() {
  exportLines();
  useLine();
  useOpenLine();
  useStreams();
  lookAtDevices();
  lookAtNodes();
  askUdev();
  findPciDevices();
  accessPciDevice();
  accessConfigFile();
}
