#include <gtest/gtest.h>

#include <boost/smart_ptr/make_shared.hpp>

#include "connector/shadow_files/PathManager.h"
#include "connector/shadow_files/held_engine.h"

namespace connector::shadow_files {
namespace {

using Path = std::vector<std::string>;

class PathManagerTest : public testing::Test
{
protected:
    const Path& path()
    {
        engine->run();
        return engine->interpreter.path;
    }

    boost::shared_ptr<HeldEngine> engine = boost::make_shared<HeldEngine>();
    PathManagerImpl paths{engine};
};

TEST_F(PathManagerTest, LaterAdditionsComeFirstAndOrderIsKept)
{
    paths.addPaths({"a", "b"});
    EXPECT_EQ(path(), (Path{"a", "b", "own", "lib"}));
    paths.addPaths({"b", "c"});
    EXPECT_EQ(path(), (Path{"b", "c", "a", "own", "lib"}));
    paths.addPaths({"a", "b"});
    EXPECT_EQ(path(), (Path{"a", "b", "c", "own", "lib"}));
    paths.removePaths({"b", "c"});
    EXPECT_EQ(path(), (Path{"a", "b", "own", "lib"}));
    paths.removePaths({"a", "b"});
    EXPECT_EQ(path(), (Path{"a", "b", "own", "lib"})) << "another owner is left";
    paths.removePaths({"a", "c"});
    paths.removePaths({"a", "b"});
    paths.removePaths({"a", "b"});
    EXPECT_EQ(path(), (Path{"own", "lib"}));
}

TEST_F(PathManagerTest, WhatTheScriptDoesToThePathStays)
{
    paths.addPaths({"own", "x"});
    EXPECT_EQ(path(), (Path{"own", "x", "own", "lib"}));
    engine->interpreter.path = {"new", "own", "own", "lib"};
    paths.removePaths({"own", "x"});
    EXPECT_EQ(path(), (Path{"new", "own", "lib"}));
}

TEST_F(PathManagerTest, OnlyChangesReachTheEngineAndOneAtATime)
{
    for (int i = 0; i < 50; ++i)
        paths.addPaths({"a" + std::to_string(i % 2)});
    EXPECT_EQ(engine->queued(), 1u);
    EXPECT_EQ(path(), (Path{"a1", "a0", "own", "lib"}));
    paths.addPaths({"a1"});
    EXPECT_EQ(engine->queued(), 0u) << "nothing to change";
}

TEST_F(PathManagerTest, FullQueueRefusesAdditionsAndDelaysRemovals)
{
    engine->capacity = 0;
    EXPECT_THROW(paths.addPaths({"a"}), rqe::EngineError);
    engine->capacity = 1;
    EXPECT_EQ(path(), (Path{"own", "lib"}));

    paths.addPaths({"b"});
    EXPECT_EQ(path(), (Path{"b", "own", "lib"})) << "without the refused one";
    engine->capacity = 0;
    paths.removePaths({"b"});
    engine->notify();
    EXPECT_EQ(engine->interpreter.path, (Path{"b", "own", "lib"}));
    engine->capacity = 1;
    engine->notify();
    EXPECT_EQ(path(), (Path{"own", "lib"}));
}

TEST_F(PathManagerTest, InterruptedChangeIsMadeAgainAndAFailedOneIsNot)
{
    engine->interpreter.failure = "KeyboardInterrupt";
    paths.addPaths({"a"});
    EXPECT_EQ(path(), (Path{"a", "own", "lib"}));
    engine->interpreter.failure = "TypeError";
    paths.removePaths({"a"});
    EXPECT_EQ(path(), (Path{"a", "own", "lib"}));
    engine->notify();
    EXPECT_EQ(engine->queued(), 0u);
    paths.addPaths({"b"});
    EXPECT_EQ(path(), (Path{"b", "own", "lib"})) << "with the next change";
}

TEST_F(PathManagerTest, WithoutAnEngineNothingHappens)
{
    PathManagerImpl none(nullptr);
    none.addPaths({"a"});
    none.removePaths({"a"});
    engine->closed = true;
    paths.addPaths({"a"});
    paths.removePaths({"a"});
    EXPECT_EQ(engine->queued(), 0u);
    for (std::size_t i = 0; i < PathManagerImpl::kMaxAdditions; ++i)
        none.addPaths({"a"});
    EXPECT_THROW(none.addPaths({"a"}), std::length_error);
}

} // namespace
} // namespace connector::shadow_files
