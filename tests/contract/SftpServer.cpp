#include "SftpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

namespace contract {
namespace {

namespace fs = std::filesystem;

std::string slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

unsigned freePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t n = sizeof a;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&a), n) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n) != 0) {
    ::close(fd);
    return 0;
  }
  ::close(fd);
  return ntohs(a.sin_port);
}

bool accepting(unsigned port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<std::uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  ::close(fd);
  return ok;
}

}  // namespace

SftpServer* serverInstance = nullptr;

SftpServer& SftpServer::instance() {
  if (serverInstance == nullptr) {
    serverInstance = new SftpServer;
    ::testing::AddGlobalTestEnvironment(serverInstance);  // GoogleTest owns it
  }
  return *serverInstance;
}

void SftpServer::SetUp() {
  if (!fs::exists("/usr/sbin/sshd") || !fs::exists("/usr/bin/ssh-keygen")) {
    why_ = "no /usr/sbin/sshd or ssh-keygen (scripts/install-deps.sh installs openssh-server)";
    return;
  }
  char pattern[] = "/tmp/sftp-test-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) {
    why_ = "cannot make a temporary folder";
    return;
  }
  dir_ = pattern;
  fs::create_directories("/run/sshd");  // sshd's privilege separation folder
  for (const char* key : {"host_key", "user_key", "other_key"}) {
    const std::string cmd = "ssh-keygen -q -t ed25519 -N '' -f " + dir_ + "/" + key + " >/dev/null";
    if (std::system(cmd.c_str()) != 0) {
      why_ = "ssh-keygen failed";
      return;
    }
  }
  fs::copy_file(dir_ + "/user_key.pub", dir_ + "/authorized_keys");
  port_ = freePort();
  std::ofstream(dir_ + "/sshd_config")
      << "Port " << port_ << "\nListenAddress 127.0.0.1\nHostKey " << dir_
      << "/host_key\nAuthorizedKeysFile " << dir_
      << "/authorized_keys\nPasswordAuthentication no\nKbdInteractiveAuthentication no\n"
         "UsePAM no\nStrictModes no\nPermitRootLogin yes\nMaxSessions 100\nMaxStartups 100\n"
         "LogLevel ERROR\nSubsystem sftp internal-sftp\nPidFile "
      << dir_ << "/sshd.pid\n";
  std::ofstream(dir_ + "/known_hosts")
      << "[127.0.0.1]:" << port_ << " " << slurp(dir_ + "/host_key.pub");
  fs::create_directories(dir_ + "/stores");
  if (!start()) why_ = "sshd did not start (see its messages above)";
}

bool SftpServer::start() {
  const pid_t pid = ::fork();
  if (pid == 0) {
    // A test binary killed before its tear-down (a closed pipe, a time-out) takes sshd along.
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    const std::string config = dir_ + "/sshd_config";
    ::execl("/usr/sbin/sshd", "/usr/sbin/sshd", "-D", "-e", "-f", config.c_str(), nullptr);
    ::_exit(127);
  }
  for (int i = 0; i < 100; ++i) {
    if (accepting(port_)) {
      pid_ = pid;
      return true;
    }
    int status = 0;
    if (::waitpid(pid, &status, WNOHANG) == pid) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  ::kill(pid, SIGTERM);
  ::waitpid(pid, nullptr, 0);
  return false;
}

namespace {

// The processes whose parent is `pid`, read from /proc.
std::vector<int> childrenOf(int pid) {
  std::vector<int> children;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream stat(entry.path() / "stat");
    std::string line;
    std::getline(stat, line);
    const auto close = line.rfind(')');
    if (close == std::string::npos) continue;
    std::istringstream rest(line.substr(close + 2));
    char state = 0;
    int parent = 0;
    rest >> state >> parent;
    if (parent == pid) children.push_back(std::stoi(name));
  }
  return children;
}

// Kills `pid` and everything it started, children first.
void killTree(int pid) {
  for (int child : childrenOf(pid)) killTree(child);
  ::kill(pid, SIGKILL);
}

}  // namespace

void SftpServer::stop() {
  if (pid_ <= 0) return;
  // The connections' processes too: a listener stopped alone leaves them serving.
  for (int child : childrenOf(pid_)) killTree(child);
  ::kill(pid_, SIGTERM);
  ::waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

void SftpServer::TearDown() {
  stop();
  std::error_code ignored;
  if (!dir_.empty()) fs::remove_all(dir_, ignored);
}

foundation::storage::provider::sftp::SftpProvider::Options SftpServer::freshStore() {
  foundation::storage::provider::sftp::SftpProvider::Options o;
  o.host = "127.0.0.1";
  o.port = port_;
  o.path = dir_ + "/stores/" + std::to_string(++stores_);
  fs::create_directories(o.path);
  o.identityFile = dir_ + "/user_key";
  o.knownHostsFile = dir_ + "/known_hosts";
  o.connectTimeoutMs = 5000;
  o.callTimeoutMs = 10000;
  o.pollIntervalMs = 100;
  return o;
}

std::string SftpServer::wrongKnownHosts() {
  const std::string path = dir_ + "/wrong_known_hosts";
  std::ofstream(path) << "[127.0.0.1]:" << port_ << " " << slurp(dir_ + "/other_key.pub");
  return path;
}

namespace {

using foundation::storage::provider::sftp::SftpProvider;

const bool kServerRegistered = (SftpServer::instance(), true);

class SftpUnderTest final : public ProviderUnderTest {
 public:
  SftpUnderTest() {
    if (SftpServer::instance().available()) {
      provider_ = std::make_shared<SftpProvider>(SftpServer::instance().freshStore());
    }
  }
  fsp::StorageItem root() override {
    return fsp::StorageItem(provider_, SftpProvider::rootLocation());
  }
  void setExtendedAttributeBehind(const std::u16string&, const std::string&,
                                  const std::string&) override {
    throw std::logic_error("the sftp store keeps no extended attributes");
  }
  std::string name() const override { return "sftp"; }
  bool keepsExtendedAttributes() const override { return false; }
  std::string skipReason() const override { return SftpServer::instance().why(); }

 private:
  std::shared_ptr<SftpProvider> provider_;
};

}  // namespace

std::unique_ptr<ProviderUnderTest> makeSftpUnderTest() { return std::make_unique<SftpUnderTest>(); }

}  // namespace contract
