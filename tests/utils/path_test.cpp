#include <ztlib/utils/path.h>

#include <gmock/gmock.h>
#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/process.h>
#include <tests/support/scratch.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace zt_test;

namespace {

void make_file(const std::string& path) { std::ofstream(path) << "x"; }

// The working directory for the length of a test.
struct WorkingDirectory {
    explicit WorkingDirectory(const std::string& path) : before(fs::current_path()) {
        fs::current_path(path);
    }
    ~WorkingDirectory() { fs::current_path(before); }
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;

    fs::path before;
};

struct Created {
    int result;
    std::string err;
};

Created create(const std::string& path) {
    CapturedStderr err;
    const int result = path_create(path.c_str());
    return {result, err.text()};
}

Created remove(const std::string& path) {
    CapturedStderr err;
    const int result = path_remove(path.c_str());
    return {result, err.text()};
}

// `length` characters of components, relative: "aaaa.../aaaa...".
std::string long_path(size_t length) {
    std::string path;
    while (path.size() < length) path += path.size() % 101 == 100 ? '/' : 'a';
    if (path.back() == '/') path.back() = 'a';
    return path;
}

}  // namespace

// --- looking ------------------------------------------------------------------------------------

TEST(Path, TellsWhetherAFileExists) {
    ScratchDirectory scratch;
    const std::string file = scratch.write("file", "x");
    EXPECT_EQ(file_exists(file.c_str()), 0);
    EXPECT_EQ(file_exists(scratch.path().c_str()), 0);
    EXPECT_EQ(file_exists((scratch / "none").c_str()), -1);
    EXPECT_EQ(file_exists((file + "/below").c_str()), -1);
    EXPECT_EQ(file_exists(nullptr), -1);
}

TEST(Path, TellsAMissingPathFromOneThatCannotBeLookedAt) {
    ScratchDirectory scratch;
    const std::string file = scratch.write("file", "x");
    EXPECT_EQ(path_exists(file.c_str()), 0);
    EXPECT_EQ(path_exists((scratch / "none").c_str()), -1);
    EXPECT_EQ(path_exists((file + "/below").c_str()), 1);
    EXPECT_EQ(path_exists(nullptr), -1);

    FailingCall fault("stat", EACCES);
    EXPECT_EQ(path_exists(file.c_str()), 1);
}

// --- making -------------------------------------------------------------------------------------

TEST(PathCreate, MakesEachMissingDirectoryAndSaysSo) {
    ScratchDirectory scratch;
    WorkingDirectory inside(scratch.path());
    const mode_t umask_before = umask(0);
    const Created made = create("a/b/c");
    umask(umask_before);
    EXPECT_EQ(made.result, 0);
    EXPECT_EQ(made.err, "mkdir: a\nmkdir: a/b\nmkdir: a/b/c\n");
    EXPECT_EQ(fs::status("a/b/c").permissions(), fs::perms(0775));

    EXPECT_EQ(create("a/b/d").err, "mkdir: a/b/d\n");
    EXPECT_EQ(create("a/b").err, "");
}

TEST(PathCreate, TakesARunOfSlashesForOne) {
    ScratchDirectory scratch;
    const Created made = create(scratch / "/x///y//");
    EXPECT_EQ(made.result, 0);
    EXPECT_EQ(made.err, "mkdir: " + scratch / "x" + "\nmkdir: " + scratch / "x/y" + "\n");
    EXPECT_TRUE(fs::is_directory(scratch / "x/y"));
}

TEST(PathCreate, MakesNothingOfNothing) {
    EXPECT_EQ(create("").result, 0);
    EXPECT_EQ(create("/").result, 0);
    EXPECT_EQ(create("///").err, "");
    EXPECT_EQ(path_create(nullptr), -1);
}

TEST(PathCreate, StopsWhereADirectoryCannotBeMade) {
    ScratchDirectory scratch;
    const std::string file = scratch.write("file", "x");
    const Created made = create(file + "/a/b");
    EXPECT_EQ(made.result, -1);
    EXPECT_EQ(made.err, "mkdir: " + file + "/a\n");

    FailingCall fault("mkdir", ENOSPC, 1);
    EXPECT_EQ(create(scratch / "p/q/r").result, -1);
    EXPECT_TRUE(fs::is_directory(scratch / "p"));
    EXPECT_FALSE(fs::exists(scratch / "p/q"));
}

TEST(PathCreate, PassesOverAFileInPlaceOfTheLastDirectory) {
    ScratchDirectory scratch;
    const Created made = create(scratch.write("file", "x"));
    EXPECT_EQ(made.result, 0);
    EXPECT_EQ(made.err, "");
}

TEST(PathCreate, RefusesALongPathBeforeItMakesAnything) {
    ScratchDirectory scratch;
    WorkingDirectory inside(scratch.path());
    EXPECT_EQ(create(long_path(PATH_CREATE_LENGTH + 1)).result, -1);
    EXPECT_TRUE(fs::is_empty("."));

    const std::string longest = long_path(PATH_CREATE_LENGTH);
    EXPECT_EQ(create(longest + "/").result, 0);
    EXPECT_TRUE(fs::is_directory(longest));
}

TEST(PathCreate, CountsDoubledSlashesOnce) {
    ScratchDirectory scratch;
    WorkingDirectory inside(scratch.path());
    EXPECT_EQ(create("a" + std::string(2000, '/') + "b").result, 0);
    EXPECT_TRUE(fs::is_directory("a/b"));
}

TEST(PathCreate, DoesNothingForAPathThatExists) {
    ScratchDirectory scratch;
    CapturedStderr err;
    EXPECT_EQ(path_notexists_create(scratch.path().c_str()), 0);
    EXPECT_EQ(err.take(), "");
    EXPECT_EQ(path_notexists_create((scratch / "new").c_str()), 0);
    EXPECT_EQ(err.take(), "mkdir: " + scratch / "new" + "\n");
    EXPECT_EQ(path_notexists_create(nullptr), -1);
}

// --- removing -----------------------------------------------------------------------------------

TEST(PathRemove, RemovesAFile) {
    ScratchDirectory scratch;
    const std::string file = scratch.write("file", "x");
    EXPECT_EQ(remove(file).result, 0);
    EXPECT_FALSE(fs::exists(file));
}

TEST(PathRemove, RemovesATree) {
    ScratchDirectory scratch;
    fs::create_directories(scratch / "t/a/b/c");
    fs::create_directories(scratch / "t/empty");
    make_file(scratch / "t/file");
    make_file(scratch / "t/a/.hidden");
    make_file(scratch / "t/a/b/" + std::string(255, 'n'));
    const Created removed = remove(scratch / "t");
    EXPECT_EQ(removed.result, 0);
    EXPECT_EQ(removed.err, "");
    EXPECT_TRUE(fs::is_empty(scratch.path()));
}

TEST(PathRemove, RemovesTenThousandEntries) {
    ScratchDirectory scratch;
    for (int i = 0; i < 100; ++i) {
        const std::string directory = scratch / "t/" + std::to_string(i);
        fs::create_directories(directory);
        for (int j = 0; j < 99; ++j) make_file(directory + "/" + std::to_string(j));
    }
    const int descriptors = descriptor_count();
    EXPECT_EQ(remove(scratch / "t").result, 0);
    EXPECT_TRUE(fs::is_empty(scratch.path()));
    EXPECT_EQ(descriptor_count(), descriptors);
}

TEST(PathRemove, SaysWhatIsNotThere) {
    ScratchDirectory scratch;
    const std::string none = scratch / "none";
    const Created removed = remove(none);
    EXPECT_EQ(removed.result, -1);
    EXPECT_EQ(removed.err, "stat(" + none + "): No such file or directory\n");
    EXPECT_EQ(path_remove(nullptr), -1);
}

TEST(PathRemove, SaysWhichStepFailed) {
    ScratchDirectory scratch;
    fs::create_directories(scratch / "t");
    const std::string tree = scratch / "t";
    const std::string file = tree + "/file";
    make_file(file);
    {
        FailingCall fault("unlink", EPERM);
        const Created removed = remove(file);
        EXPECT_EQ(removed.result, -2);
        EXPECT_EQ(removed.err, "unlink(" + file + "): Operation not permitted\n");
    }
    {
        FailingCall fault("opendir", EACCES);
        const Created removed = remove(tree);
        EXPECT_EQ(removed.result, -3);
        EXPECT_EQ(removed.err, "opendir(" + tree + "): Permission denied\n");
    }
    const int descriptors = descriptor_count();
    {
        FailingCall fault("stat", EIO, 1);
        const Created removed = remove(tree);
        EXPECT_EQ(removed.result, -4);
        EXPECT_THAT(removed.err, testing::MatchesRegex("stat\\(.*/t/.*\\): Input/output error\n"));
    }
    {
        FailingCall fault("unlink", EPERM);
        const Created removed = remove(tree);
        EXPECT_EQ(removed.result, -5);
        EXPECT_EQ(removed.err, "unlink(" + file + "): Operation not permitted\n");
    }
    EXPECT_EQ(descriptor_count(), descriptors);
    {
        FailingCall fault("rmdir", EBUSY);
        const Created removed = remove(tree);
        EXPECT_EQ(removed.result, -1);
        EXPECT_EQ(removed.err, "rmdir(" + tree + "): Device or resource busy\n");
    }
    EXPECT_FALSE(fs::exists(file));
}

TEST(PathRemove, TriesTheDirectoryItselfWhenASubdirectoryStays) {
    ScratchDirectory scratch;
    const std::string tree = scratch / "t";
    fs::create_directories(tree + "/sub");
    FailingCall fault("rmdir", EPERM);
    const Created removed = remove(tree);
    EXPECT_EQ(removed.result, -1);
    EXPECT_EQ(removed.err, "rmdir(" + tree + "/sub): Operation not permitted\nrmdir(" + tree +
                               "): Directory not empty\n");
}

TEST(PathRemove, LeavesAnEntryWhoseNameIsTooLong) {
    ScratchDirectory scratch;
    WorkingDirectory inside(scratch.path());
    const std::string tree = long_path(PATH_ENTRY_LENGTH - 3);
    fs::create_directories(tree);
    make_file(tree + "/ab");
    EXPECT_EQ(remove(tree).result, 0);

    fs::create_directories(tree);
    make_file(tree + "/abc");
    const Created removed = remove(tree);
    EXPECT_EQ(removed.result, -4);
    EXPECT_EQ(removed.err, "stat(" + tree + "/ab): File name too long\n");
    EXPECT_TRUE(fs::exists(tree + "/abc"));
}

TEST(PathRemove, RemovesALinkToAFileAndKeepsItsTarget) {
    ScratchDirectory scratch;
    const std::string file = scratch.write("file", "x");
    fs::create_directories(scratch / "t");
    fs::create_symlink(file, scratch / "t/link");
    EXPECT_EQ(remove(scratch / "t").result, 0);
    EXPECT_TRUE(fs::exists(file));
}

TEST(PathRemove, EmptiesTheDirectoryBehindALinkAndKeepsTheLink) {
    ScratchDirectory scratch;
    fs::create_directories(scratch / "elsewhere");
    make_file(scratch / "elsewhere/file");
    fs::create_directories(scratch / "t");
    const std::string link = scratch / "t/link";
    fs::create_directory_symlink(scratch / "elsewhere", link);
    const Created removed = remove(scratch / "t");
    EXPECT_EQ(removed.result, -1);
    EXPECT_EQ(removed.err, "rmdir(" + link + "): Not a directory\nrmdir(" + scratch / "t" +
                               "): Directory not empty\n");
    EXPECT_TRUE(fs::is_empty(scratch / "elsewhere"));
}

TEST(PathRemove, EndsAtADanglingLink) {
    ScratchDirectory scratch;
    fs::create_directories(scratch / "t");
    const std::string link = scratch / "t/link";
    fs::create_symlink(scratch / "none", link);
    const Created removed = remove(scratch / "t");
    EXPECT_EQ(removed.result, -4);
    EXPECT_EQ(removed.err, "stat(" + link + "): No such file or directory\n");
}

TEST(PathRemove, ReturnsFromDirectoriesThatLinkToThemselves) {
    ScratchDirectory scratch;
    const std::string tree = scratch / "t";
    fs::create_directories(tree + "/sub");
    make_file(tree + "/sub/file");
    for (const char* name : {"one", "two", "three"}) {
        fs::create_directory_symlink(".", tree + "/" + name);
        fs::create_directory_symlink("../sub", tree + "/sub/" + name);
    }
    const Created removed = remove(tree);
    EXPECT_EQ(removed.result, -1);
    EXPECT_EQ(removed.err, "rmdir(" + tree + "/sub): Directory not empty\nrmdir(" + tree +
                               "): Directory not empty\n");
    EXPECT_FALSE(fs::exists(tree + "/sub/file"));
}

TEST(PathRemove, StopsAtADirectoryWithoutPermission) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root, to become somebody else";
    ScratchDirectory scratch;
    const std::string tree = scratch / "t";
    fs::create_directories(tree + "/closed");
    make_file(tree + "/closed/file");
    ASSERT_EQ(chmod(scratch.path().c_str(), 0777), 0);
    ASSERT_EQ(chmod(tree.c_str(), 0777), 0);
    ASSERT_EQ(chmod((tree + "/closed").c_str(), 0700), 0);

    const ChildResult child = run_in_child([&] {
        if (setuid(65534) != 0) _exit(99);
        exit(path_remove(tree.c_str()) == -1 ? 0 : 1);
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(child.err, "opendir(" + tree + "/closed): Permission denied\nrmdir(" + tree +
                             "): Directory not empty\n");
    EXPECT_TRUE(fs::exists(tree + "/closed/file"));
}
