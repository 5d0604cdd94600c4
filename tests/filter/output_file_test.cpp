#include "output_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <random>
#include <thread>

#include "support/temp_dir.h"

namespace lum::vela {
namespace {

using motrace::testing::Bytes;
using motrace::testing::ReadFile;
using motrace::testing::TempDir;
using motrace::testing::WriteFile;
namespace fs = std::filesystem;

// Pieces smaller than the buffer, as large, and larger.
TEST(OutputFileTest, PiecesOfAnySizeComeOutInTheirOrder) {
  const TempDir dir;
  std::mt19937 random(1);
  WriteFile(dir / "file", Bytes(3'000'000, 'x'));
  OutputFile file;
  ASSERT_TRUE(file.Open(dir / "file"));
  EXPECT_EQ(fs::file_size(dir / "file"), 0U);
  Bytes whole;
  for (const size_t size : {1, 65535, 65536, 1, 0, 65537, 40000, 25536, 200000, 7, 2000000}) {
    Bytes piece(size);
    for (auto& byte : piece) byte = static_cast<uint8_t>(random());
    file.Write(piece.data(), piece.size());
    whole.insert(whole.end(), piece.begin(), piece.end());
  }
  EXPECT_TRUE(file.Close());
  EXPECT_TRUE(ReadFile(dir / "file") == whole);
}

TEST(OutputFileTest, TheFirstFailureStays) {
  const TempDir dir;
  fs::create_directory(dir / "folder");
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  WriteFile(dir / "kept", {1, 2, 3});
  fs::create_symlink("kept", dir / "link");
  fs::create_hard_link(dir / "kept", dir / "same");
  OutputFile file;
  const struct {
    fs::path path;
    int error;
  } cases[] = {{dir / "folder", EISDIR},
               {dir / "missing" / "file", ENOENT},
               {dir / "pipe", ENXIO},  // without a reader
               {dir / "link", OutputFile::kIsKept},
               {dir / "same", OutputFile::kIsKept}};
  for (const auto& c : cases) {
    EXPECT_FALSE(file.Open(c.path, FileId::Of(dir / "kept")));
    EXPECT_FALSE(file.is_open());
    EXPECT_FALSE(file.Close());
    EXPECT_EQ(file.error(), c.error) << c.path;
  }
  EXPECT_EQ(ReadFile(dir / "kept"), (Bytes{1, 2, 3}));
  // A full disk, noticed when the buffer is full, and when it is closed.
  const Bytes much(100'000);
  for (const size_t size : {much.size(), size_t{1}}) {
    ASSERT_TRUE(file.Open("/dev/full", FileId::Of(dir / "missing")));
    file.Write(much.data(), size);
    EXPECT_EQ(file.error(), size > 1 ? ENOSPC : 0);
    EXPECT_FALSE(file.Close());
    EXPECT_EQ(file.error(), ENOSPC);
  }
}

// Opened without waiting, written with: the reader takes its time.
TEST(OutputFileTest, APipeThatIsReadGetsTheWhole) {
  const TempDir dir;
  const Bytes whole(1'000'000, 'x');
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  const int held = open((dir / "pipe").c_str(), O_RDONLY | O_NONBLOCK);
  std::thread reader([&] { EXPECT_TRUE(ReadFile(dir / "pipe") == whole); });
  OutputFile file;
  ASSERT_TRUE(file.Open(dir / "pipe"));
  file.Write(whole.data(), whole.size());
  EXPECT_TRUE(file.Close());
  reader.join();
  close(held);
}

}  // namespace
}  // namespace lum::vela
