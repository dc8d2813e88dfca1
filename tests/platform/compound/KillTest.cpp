// A process killed with SIGKILL in the middle of commits leaves a file that opens and holds one whole
// generation of its streams.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <thread>

#include "tests/platform/compound/CompoundTestSupport.h"
#include "tests/support/TempDir.h"

namespace tavik::test {
namespace {

constexpr int kStreams = 12;

std::vector<unsigned char> Generation(int stream, unsigned g) {
    return std::vector<unsigned char>(static_cast<std::size_t>(stream * 997 + (g % 7) * 3000),
                                      static_cast<unsigned char>(g));
}

[[noreturn]] void CommitForever(const std::string& file) {
    for (unsigned g = 1;; ++g) {
        IStorage* root = nullptr;
        if (FAILED(StgOpenStorage(file.c_str(), nullptr, kRW, nullptr, 0, &root))) _exit(3);
        for (int s = 0; s < kStreams; ++s)
            PutStream(root, ("s" + std::to_string(s)).c_str(), Generation(s, g));
        if (FAILED(root->Commit(STGC_DEFAULT))) _exit(4);
        root->Release();
    }
}

TEST(CompoundKill, KilledCommitsLeaveOneWholeGeneration) {
    TempDir dir;
    std::string file = dir.file("k.ole");
    {
        Com<IStorage> root;
        ASSERT_EQ(StgCreateDocfile(file.c_str(), kRW | STGM_CREATE, 0, root.out()), S_OK);
        for (int s = 0; s < kStreams; ++s)
            ASSERT_EQ(PutStream(root.get(), ("s" + std::to_string(s)).c_str(), Generation(s, 0)), S_OK);
    }
    std::mt19937 rng(42);
    for (int round = 0; round < 40; ++round) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) CommitForever(file);
        std::this_thread::sleep_for(std::chrono::milliseconds(5 + rng() % 60));
        kill(pid, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFSIGNALED(status)) << "writer stopped on its own: " << WEXITSTATUS(status);
        Com<IStorage> root;
        ASSERT_EQ(StgOpenStorage(file.c_str(), nullptr, kRO, nullptr, 0, root.out()), S_OK) << round;
        auto first = GetStream(root.get(), "s1");
        ASSERT_FALSE(first.empty());
        unsigned g = first[0];
        for (int s = 0; s < kStreams; ++s) {
            HRESULT hr;
            auto data = GetStream(root.get(), ("s" + std::to_string(s)).c_str(), &hr);
            ASSERT_EQ(hr, S_OK);
            // Generations wrap at 256 in the byte; the size pins the generation modulo 7 as well.
            EXPECT_EQ(data.size(), Generation(s, g).size()) << "round " << round << " stream " << s;
            EXPECT_TRUE(std::all_of(data.begin(), data.end(),
                                    [&](unsigned char c) { return c == static_cast<unsigned char>(g); }));
        }
    }
    // The next writer clears what the killed commits left behind.
    {
        Com<IStorage> root;
        ASSERT_EQ(StgOpenStorage(file.c_str(), nullptr, kRW, nullptr, 0, root.out()), S_OK);
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}

}  // namespace
}  // namespace tavik::test
