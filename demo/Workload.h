// Workload: what a developer's tool does to a project tree on a store: list the store's root
// (through the overlay, its first call, which sets the overlay up), make the folders, write
// ~20 small source files, read them back, stat them, list the folders, check which files
// exist and rename a few. It checks every answer against what it wrote and keeps the
// tree it expects the store to hold afterwards.
//
// Runs on the caller's thread against one root item; owns nothing but its expectations and
// the problems it found. Time per operation kind goes to the OperationTimings it is given.
#pragma once

#include "OperationTimings.h"

#include <foundation/storage/provider/StorageItem.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace overlaydemo {

// Paths relative to the store's root ("/project/src/a.cpp").
struct ExpectedTree {
  std::set<std::u16string> folders;
  std::map<std::u16string, std::string> files;
};

class Workload {
 public:
  Workload(foundation::storage::provider::StorageItem root, OperationTimings& timings);

  // Runs every step; a wrong answer from the store is recorded in problems(), an exception
  // from the store ends the run (it propagates).
  void run();
  const ExpectedTree& expected() const { return expected_; }
  const std::vector<std::string>& problems() const { return problems_; }

 private:
  foundation::storage::provider::StorageItem at(const std::u16string& path) const;
  void openStore();
  void makeFolders();
  void writeFiles();
  void readFiles();
  void statFiles();
  void listFolders();
  void checkExistence();
  void renameFiles();
  void problem(const std::u16string& path, const std::string& what);

  foundation::storage::provider::StorageItem root_;
  OperationTimings& timings_;
  ExpectedTree expected_;
  std::vector<std::string> problems_;
};

// The bytes of a whole file, read through its item.
std::string readWholeFile(const foundation::storage::provider::StorageItem& file);

}  // namespace overlaydemo
