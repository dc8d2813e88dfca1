// tavik store tree / cat, run in a child process with standard output captured.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "host/Commands.h"
#include "tests/platform/compound/CompoundTestSupport.h"
#include "tests/support/TempDir.h"

namespace tavik::test {
namespace {

std::pair<int, std::string> Store(const TempDir& dir, host::Args args) {
    std::string out = dir.file("stdout");
    pid_t pid = fork();
    if (pid == 0) {
        int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(fd, 1);
        int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, 2);
        int rc = host::RunStore(args);
        std::fflush(stdout);
        _exit(rc);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    std::ifstream f(out, std::ios::binary);
    return {WEXITSTATUS(status), std::string(std::istreambuf_iterator<char>(f), {})};
}

TEST(StoreCommand, TreeAndCat) {
    TempDir dir;
    std::string file = dir.file("s.ole");
    {
        Com<IStorage> root, sub;
        ASSERT_EQ(StgCreateDocfile(file.c_str(), kRW | STGM_CREATE, 0, root.out()), S_OK);
        ASSERT_EQ(root->CreateStorage("Account", kRW, 0, 0, sub.out()), S_OK);
        ASSERT_EQ(PutStream(sub.get(), "\005Info", {'h', 'i'}), S_OK);
        ASSERT_EQ(PutStream(root.get(), "Body", Pattern(5000, 1)), S_OK);
    }
    auto tree = Store(dir, {"tree", file});
    EXPECT_EQ(tree.first, 0);
    EXPECT_EQ(tree.second,
              "storage            0  /\n"
              "stream          5000  /Body\n"
              "storage            0  /Account\n"
              "stream             2  /Account/\\x05Info\n");
    auto cat = Store(dir, {"cat", file, "Account/\\x05info"});
    EXPECT_EQ(cat, (std::pair<int, std::string>{0, "hi"}));
    auto big = Pattern(5000, 1);
    EXPECT_EQ(Store(dir, {"cat", file, "/Body"}).second, std::string(big.begin(), big.end()));
    EXPECT_EQ(Store(dir, {"cat", file, "Account/none"}).first, 1);
    EXPECT_EQ(Store(dir, {"tree", dir.file("missing")}).first, 1);
    EXPECT_EQ(Store(dir, {"list", file}).first, 2);
}

}  // namespace
}  // namespace tavik::test
