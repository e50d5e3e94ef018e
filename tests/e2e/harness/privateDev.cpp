#include "privateDev.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include "descriptor.h"

namespace e2e {
namespace {

std::string because(const std::string& operation) {
  return operation + ": " + std::system_category().message(errno);
}

std::string writeFile(const std::string& path, const std::string& text) {
  const Descriptor fd(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
  if (!fd || ::write(fd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) return because(path);
  return {};
}

std::string becomeRootOfUserNamespace() {
  const std::string uid = std::to_string(::geteuid()), gid = std::to_string(::getegid());
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return because("unshare of user and mount namespaces");
  for (const auto& [file, text] : {std::pair<const char*, std::string>{"/proc/self/setgroups", "deny"},
                                   {"/proc/self/uid_map", "0 " + uid + " 1"},
                                   {"/proc/self/gid_map", "0 " + gid + " 1"}}) {
    if (auto why = writeFile(file, text); !why.empty()) return why;
  }
  return {};
}

// Device nodes cannot be made in a user namespace, but those that exist can be bound.
std::string bindNode(const std::string& dev, const std::string& name) {
  const std::string target = dev + "/" + name;
  const Descriptor made(::open(target.c_str(), O_CREAT | O_RDONLY | O_CLOEXEC, 0666));
  if (!made) return because(target);
  if (::mount(("/dev/" + name).c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) return because(target);
  return {};
}

std::string furnish(const std::string& dev) {
  if (::mount("tmpfs", dev.c_str(), "tmpfs", 0, "mode=0755") != 0) return because("tmpfs");
  for (const char* node : {"null", "zero", "full", "random", "urandom", "tty"}) {
    if (auto why = bindNode(dev, node); !why.empty()) return why;
  }
  const std::string pts = dev + "/pts", shm = dev + "/shm";
  if (::mkdir(pts.c_str(), 0755) != 0 || ::mkdir(shm.c_str(), 0755) != 0) return because("mkdir");
  if (std::filesystem::exists("/dev/pts")) ::mount("/dev/pts", pts.c_str(), nullptr, MS_BIND | MS_REC, nullptr);
  if (::mount("tmpfs", shm.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777") != 0) return because("shm");
  for (const auto& [link, target] : {std::pair{"fd", "/proc/self/fd"},
                                     {"stdin", "/proc/self/fd/0"},
                                     {"stdout", "/proc/self/fd/1"},
                                     {"stderr", "/proc/self/fd/2"}}) {
    if (::symlink(target, (dev + "/" + link).c_str()) != 0) return because(link);
  }
  return {};
}

}  // namespace

std::string enterPrivateDev() {
  if (::geteuid() == 0 && ::unshare(CLONE_NEWNS) == 0) {
    // Root of the machine, or of a container that lets it.
  } else if (auto why = becomeRootOfUserNamespace(); !why.empty()) {
    return why;
  }
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return because("making mounts private");
  std::string dev = "/tmp/keld-dev.XXXXXX";
  if (::mkdtemp(dev.data()) == nullptr) return because(dev);
  std::string why = furnish(dev);
  if (why.empty() && ::mount(dev.c_str(), "/dev", nullptr, MS_MOVE, nullptr) != 0) why = because("moving onto /dev");
  ::rmdir(dev.c_str());
  return why;
}

}  // namespace e2e
