#include "Workload.h"

#include <foundation/text/Unicode.h>

#include <algorithm>

namespace overlaydemo {

namespace fsp = foundation::storage::provider;
using foundation::text::toUtf16;
using foundation::text::toUtf8;

namespace {

const std::vector<std::u16string> kFolders = {u"/project",          u"/project/src",
                                              u"/project/src/core", u"/project/src/net",
                                              u"/project/docs",     u"/project/tests"};
constexpr int kFileCount = 20;
const std::vector<std::u16string> kFileFolders = {u"/project/src/core", u"/project/src/net",
                                                  u"/project/docs", u"/project/tests"};

std::string sourceText(int index) {
  std::string text = "// generated module " + std::to_string(index) + "\n";
  for (int line = 0; line < 10 + index * 3; ++line) {
    text += "int value_" + std::to_string(index) + "_" + std::to_string(line) + " = " +
            std::to_string(index * line) + ";\n";
  }
  return text;
}

std::u16string parentOf(const std::u16string& path) {
  return path.substr(0, std::max<std::size_t>(path.rfind(u'/'), 1));
}

}  // namespace

std::string readWholeFile(const fsp::StorageItem& file) {
  auto stream = file.openReadOnlyStream();
  std::string content;
  char buffer[4096];
  for (long n; (n = stream->read(buffer, sizeof buffer)) > 0;) content.append(buffer, n);
  stream->close();
  return content;
}

Workload::Workload(fsp::StorageItem root, OperationTimings& timings)
    : root_(std::move(root)), timings_(timings) {}

fsp::StorageItem Workload::at(const std::u16string& path) const {
  return fsp::StorageItem(root_, path);
}

void Workload::problem(const std::u16string& path, const std::string& what) {
  problems_.push_back(toUtf8(path) + ": " + what);
}

void Workload::run() {
  openStore();
  makeFolders();
  writeFiles();
  readFiles();
  statFiles();
  listFolders();
  checkExistence();
  renameFiles();
}

void Workload::openStore() {
  const bool empty =
      timings_.time("first call (list /)", [&] { return !root_.listAll()->hasNext(); });
  if (!empty) problem(u"/", "holds entries before the workload made any");
}

void Workload::makeFolders() {
  for (const auto& folder : kFolders) {
    timings_.time("create folder", [&] { at(folder).createFolder(); });
    expected_.folders.insert(folder);
  }
}

void Workload::writeFiles() {
  for (int i = 0; i < kFileCount; ++i) {
    const std::u16string folder = kFileFolders[i % kFileFolders.size()];
    const std::u16string path = folder + u"/module" + toUtf16(std::to_string(i)) + u".cpp";
    const std::string content = sourceText(i);
    timings_.time("write file", [&] {
      auto stream = at(path).openStream(fsp::ByteStreamOpenOptions::overwrite());
      stream->write(content.data(), static_cast<long>(content.size()));
      stream->close();
    });
    expected_.files[path] = content;
  }
}

// The loops below name a map entry's parts as plain references, not a structured binding:
// clang 14 does not let a lambda capture a structured binding.
void Workload::readFiles() {
  for (const auto& file : expected_.files) {
    const std::u16string& path = file.first;
    const std::string& content = file.second;
    const std::string read = timings_.time("read file", [&] { return readWholeFile(at(path)); });
    if (read != content) problem(path, "read back different bytes");
  }
}

void Workload::statFiles() {
  for (const auto& file : expected_.files) {
    const std::u16string& path = file.first;
    const std::string& content = file.second;
    const auto attributes =
        timings_.time("stat file", [&] { return at(path).getFileAttributes(); });
    if (attributes.getSize() != content.size()) problem(path, "reports a wrong size");
  }
}

void Workload::listFolders() {
  for (const auto& folder : expected_.folders) {
    std::set<std::u16string> listed;
    timings_.time("list folder", [&] {
      const auto entries = at(folder).listAll();
      while (entries->hasNext()) {
        entries->next();
        listed.insert(folder + u"/" + entries->current().getName());
      }
    });
    std::set<std::u16string> children;
    for (const auto& [path, content] : expected_.files) {
      if (parentOf(path) == folder) children.insert(path);
    }
    for (const auto& other : expected_.folders) {
      if (other != folder && parentOf(other) == folder) children.insert(other);
    }
    if (listed != children) problem(folder, "lists other children than were made");
  }
}

void Workload::checkExistence() {
  for (const auto& file : expected_.files) {
    const std::u16string& path = file.first;
    if (!timings_.time("file exists", [&] { return at(path).fileExists(); })) {
      problem(path, "does not exist");
    }
  }
  for (const std::u16string missing : {u"/project/README", u"/project/src/core/none.cpp"}) {
    if (timings_.time("file exists", [&] { return at(missing).fileExists(); })) {
      problem(missing, "exists but was never made");
    }
  }
}

void Workload::renameFiles() {
  std::vector<std::u16string> renamed;
  for (const auto& [path, content] : expected_.files) {
    if (renamed.size() < 4 && path.find(u"/tests/") == std::u16string::npos) {
      renamed.push_back(path);
    }
  }
  for (const auto& from : renamed) {
    const std::u16string to = from.substr(0, from.size() - 4) + u"_renamed.cpp";
    timings_.time("rename file",
                  [&] { at(from).moveFile(at(to).getLocation(), fsp::ReplacementPolicy::Fail); });
    expected_.files[to] = expected_.files[from];
    expected_.files.erase(from);
  }
}

}  // namespace overlaydemo
