#include "base/Exception.h"
#include "support/Logger.h"
#include "support/SafeFile.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

#include <fstream>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

using namespace QEL;

namespace {

class TempFile {
public:
    TempFile() : path((boost::filesystem::temp_directory_path() / boost::filesystem::unique_path()).string()) {}
    ~TempFile() { boost::filesystem::remove(path); }
    std::string Read() const
    {
        std::ifstream in(path);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    std::string path;
};

TEST(FileLogger, LineFormatAndAppendMode)
{
    TempFile file;
    {
        Tools::FileLogger logger(file.path, false);
        logger.Write("first");
    }
    std::regex line(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}(\.\d{6})?: first\n)");
    EXPECT_TRUE(std::regex_match(file.Read(), line)) << file.Read();
    {
        Tools::FileLogger logger(file.path, true);
        logger.Write("second");
    }
    EXPECT_NE(std::string::npos, file.Read().find(": second\n"));
    EXPECT_NE(std::string::npos, file.Read().find(": first\n"));
    {
        Tools::FileLogger logger(file.path, false);
        logger.Write("third");
    }
    EXPECT_EQ(std::string::npos, file.Read().find("first")) << "without append the file starts anew";
}

TEST(FileLogger, UnwritablePathFailsAtConstruction)
{
    try {
        Tools::FileLogger logger("/nonexistent-folder/x.log", false);
        FAIL();
    } catch (const System::Exception& e) {
        EXPECT_EQ("Could not open file.", e.GetMessage());
    }
}

TEST(Logger, InstalledLoggerReceivesWholeLinesFromManyThreads)
{
    TempFile file;
    EXPECT_THROW(Tools::Logger::Set(nullptr), System::Exception);
    Tools::Logger::Log("dropped before Set");
    Tools::Logger::Set(std::make_shared<Tools::FileLogger>(file.path, false));
    EXPECT_TRUE(Tools::Logger::IsActive());
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 100; ++i)
                Tools::Logger::LogCalled("F" + std::to_string(t));
        });
    for (auto& t : threads)
        t.join();
    Tools::Logger::Clear();
    EXPECT_FALSE(Tools::Logger::IsActive());
    Tools::Logger::Log("dropped after Clear");

    std::istringstream lines(file.Read());
    std::string lineText;
    int count = 0;
    std::regex line(R"(\d{4}-\d{2}-\d{2} [\d:.]+: F[0-3] called)");
    while (std::getline(lines, lineText)) {
        EXPECT_TRUE(std::regex_match(lineText, line)) << lineText;
        ++count;
    }
    EXPECT_EQ(400, count);
}

}

namespace {

TEST(SafeFile, NoLinkFollowedNoFifoWaitedOnAndNoGroupWrite)
{
    const boost::filesystem::path folder =
        boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("safefile-%%%%-%%%%");
    boost::filesystem::create_directories(folder);
    const std::string victim = (folder / "victim").string(), link = (folder / "log").string();
    std::ofstream(victim) << "precious";
    boost::filesystem::create_symlink(victim, link);
    EXPECT_EQ(nullptr, QEL::Tools::OpenFileForWriting(link, false));
    EXPECT_EQ(nullptr, QEL::Tools::OpenFileForWriting(link, true));
    EXPECT_THROW(QEL::Tools::FileLogger(link, false), QEL::System::Exception);
    std::ifstream in(victim);
    std::string text;
    in >> text;
    EXPECT_EQ("precious", text);

    const std::string fifo = (folder / "fifo").string();
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    EXPECT_EQ(nullptr, QEL::Tools::OpenFileForWriting(fifo, false)) << "refused at once, not waited on";

    const std::string plain = (folder / "plain").string();
    std::FILE* file = QEL::Tools::OpenFileForWriting(plain, false);
    ASSERT_NE(nullptr, file);
    std::fputs("one\n", file);
    std::fclose(file);
    file = QEL::Tools::OpenFileForWriting(plain, true);
    ASSERT_NE(nullptr, file);
    std::fputs("two\n", file);
    std::fclose(file);
    std::ifstream lines(plain);
    std::string first, second;
    lines >> first >> second;
    EXPECT_EQ("one", first);
    EXPECT_EQ("two", second) << "appended";
    struct stat status {};
    ASSERT_EQ(0, ::stat(plain.c_str(), &status));
    EXPECT_EQ(0u, status.st_mode & (S_IWGRP | S_IWOTH));
    file = QEL::Tools::OpenFileForWriting(plain, false);
    std::fclose(file);
    EXPECT_EQ(0, boost::filesystem::file_size(plain)) << "truncated";
    boost::filesystem::remove_all(folder);
}

}
