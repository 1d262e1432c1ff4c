#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "connector/common/Log.h"

/// An install root, a user's folder and environment variables of its own for each test.
class ConfigurationTest : public testing::Test
{
protected:
    void SetUp() override
    {
        std::string name = (std::filesystem::temp_directory_path() / "configuration-XXXXXX").string();
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        folder_ = name;
        std::filesystem::create_directories(rootFile().parent_path());
        std::filesystem::create_directories(userFile().parent_path());
        setVariable("VENDRA_ROOT", rootFile().parent_path().string());
        setVariable("XDG_CONFIG_HOME", (folder_ / "user").string());
        connector::common::setLogDestination("file:" + logFile().string());
    }

    void TearDown() override
    {
        connector::common::setLogDestination("");
        for (const auto& [name, before] : variables_) {
            if (before.empty())
                unsetenv(name.c_str());
            else
                setenv(name.c_str(), before.c_str(), 1);
        }
        std::filesystem::remove_all(folder_);
    }

    void setVariable(const std::string& name, const std::string& value)
    {
        const char* before = std::getenv(name.c_str());
        variables_.emplace_back(name, before ? before : "");
        setenv(name.c_str(), value.c_str(), 1);
    }

    static void writeFile(const std::filesystem::path& path, const std::string& text) { std::ofstream(path) << text; }

    std::filesystem::path rootFile() const { return folder_ / "root" / "connector.conf"; }
    std::filesystem::path userFile() const { return folder_ / "user" / "vendra" / "connector.conf"; }
    std::filesystem::path logFile() const { return folder_ / "log"; }

    std::filesystem::path folder_;
    std::vector<std::pair<std::string, std::string>> variables_;
};
