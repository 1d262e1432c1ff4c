#include <set>
#include <thread>
#include <vector>

#include "Fixture.h"
#include "platform/us/ProcessFramework.h"

namespace us_test {

using foundation::cppmicroservices::getFramework;
using foundation::cppmicroservices::setFramework;

/// A service that needs the framework while it dies.
struct AsksAtTheEnd : Both
{
    explicit AsksAtTheEnd(std::shared_ptr<us::Framework>& told) : answer(told) {}
    ~AsksAtTheEnd() override { answer = getFramework(); }
    std::shared_ptr<us::Framework>& answer;
};

// One test: what it looks at belongs to the process.
TEST(UsProcessFramework, IsMadeOnceAndReplacedByTheHost)
{
    std::vector<std::shared_ptr<us::Framework>> seen(4);
    {
        std::vector<std::jthread> threads;
        for (auto& slot : seen)
            threads.emplace_back([&slot] { slot = getFramework(); });
    }
    EXPECT_EQ(std::set(seen.begin(), seen.end()).size(), 1u);
    ASSERT_NE(seen.front(), nullptr);
    EXPECT_TRUE(seen.front()->IsStarted());

    const auto own = us::FrameworkFactory().NewFramework();
    setFramework(own);
    EXPECT_EQ(getFramework(), own);
    EXPECT_TRUE(seen.front()->IsStarted()) << "somebody still holds it";
    setFramework(nullptr);
    EXPECT_EQ(getFramework(), nullptr) << "empty was asked for, not a new one";

    // The old one ends outside the lock: what it holds may ask for the framework.
    std::shared_ptr<us::Framework> asked;
    {
        auto last = us::FrameworkFactory().NewFramework();
        last->Start();
        last->GetBundleContext()->RegisterService<Greeter>(std::make_shared<AsksAtTheEnd>(asked));
        setFramework(std::move(last));
    }
    setFramework(own);
    EXPECT_EQ(asked, own);
    setFramework(seen.front());
}

} // namespace us_test
