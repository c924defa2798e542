// Unloading the platform library says the counts its rate limiter still holds, and leaves no
// thread of it running behind (a flusher running in unmapped code would crash the process).
// A child loads the testing build of the platform, suppresses reports, unloads it, and lives
// on past the flusher's next wake-up; its stderr must hold the count.
#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

int child(const std::string& root) {
  setenv("HADRA_LOG", "stderr", 1);
  setenv("HADRA_ROOT", root.c_str(), 1);  // the platform makes its root: a scratch one
  void* lib = dlopen(HADRA_PLATFORM_TESTING_PATH, RTLD_NOW | RTLD_LOCAL);
  if (lib == nullptr) {
    std::fprintf(stderr, "dlopen: %s\n", dlerror());
    return 3;
  }
  using RateLimit = int (*)(const void*, ...);
  using SetRate = void (*)(unsigned, uint64_t);
  auto limit = reinterpret_cast<RateLimit>(dlsym(lib, "syslog_msg_rate_limit"));
  auto set_rate = reinterpret_cast<SetRate>(dlsym(lib, "plat_test_log_set_rate_limit"));
  const void* desc = dlsym(lib, "msg_error_HADRA_PSS_OPEN");
  if (limit == nullptr || set_rate == nullptr || desc == nullptr) return 4;
  set_rate(1, uint64_t{3600} * 1000000000u);
  for (int i = 0; i < 3; ++i) limit(desc, "run:/unload", "io");
  if (dlclose(lib) != 0) return 5;
  if (dlopen(HADRA_PLATFORM_TESTING_PATH, RTLD_NOW | RTLD_NOLOAD) != nullptr) {
    std::fprintf(stderr, "the library stayed loaded after dlclose\n");
    return 6;
  }
  usleep(500 * 1000);  // past the flusher's next wake-up, had it been left running
  return 0;
}

}  // namespace

int main() {
  std::string root = (std::filesystem::temp_directory_path() / "hadra-unload-XXXXXX").string();
  if (mkdtemp(root.data()) == nullptr) return 2;
  struct Cleanup {
    std::string dir;
    ~Cleanup() {
      std::error_code ec;
      std::filesystem::remove_all(dir, ec);
    }
  } cleanup{root};
  int out[2];
  if (pipe(out) != 0) return 2;
  const pid_t pid = fork();
  if (pid < 0) return 2;
  if (pid == 0) {
    dup2(out[1], STDERR_FILENO);
    close(out[0]);
    _exit(child(root));  // no exit handlers: only the unload may say the count
  }
  close(out[1]);
  std::string text;
  char buf[512];
  for (ssize_t n; (n = read(out[0], buf, sizeof buf)) > 0;) text.append(buf, static_cast<size_t>(n));
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::printf("FAIL: the child ended with status %d after unloading the platform\n%s", status, text.c_str());
    return 1;
  }
  if (text.find("2 similar messages suppressed (run:/unload io)") == std::string::npos) {
    std::printf("FAIL: unloading did not say the suppressed count; stderr was:\n%s", text.c_str());
    return 1;
  }
  std::printf("ok: the count was said at unload and no flusher outlived the library\n");
  return 0;
}
