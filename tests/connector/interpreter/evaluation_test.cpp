#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <map>
#include <thread>

#include "connector/interpreter/Evaluation.h"
#include "connector/json/JsonFields.h"
#include "connector/json/JsonText.h"

namespace connector::interpreter::v1 {
namespace {

using std::chrono::milliseconds;

/// A client that notes what it gets, and has room for so many messages.
class Client final : public bayeux::BayeuxSession, public std::enable_shared_from_this<Client>
{
public:
    explicit Client(std::size_t room) : room_(room) {}

    const std::string& id() const noexcept override { return id_; }
    const std::string& publicId() const noexcept override { return id_; }
    bool isLocal() const noexcept override { return false; }
    const std::string& httpSessionId() const noexcept override { return id_; }
    bool answer(bayeux::EventPtr event) override { return deliver(std::move(event)); }
    bool deliver(bayeux::EventPtr event) override
    {
        std::lock_guard lock(mutex_);
        if (over_)
            return false;
        if (event->channel() == "/service/interpreter/detach") {
            dismissed_ = true;
            return true;
        }
        events_.push_back(json::asObject(json::parse(event->text()))->getObject("data"));
        changed_.notify_all();
        return true;
    }
    bool hasRoom() const override
    {
        std::lock_guard lock(mutex_);
        return events_.size() < room_;
    }
    void disconnect() override { over_ = true; }
    bool isOver() const override { return over_; }
    std::shared_ptr<bayeux::BayeuxSeries> openSeries(const std::string&, bool) override
    {
        return std::make_shared<Series>(shared_from_this(), ++opened_);
    }
    /// Its connection breaks, and is there again.
    void cut() { ++opened_; }
    void goAway(bool away) { away_ = away; }
    bool wasDismissed() const { return dismissed_; }

    void giveRoom(std::size_t more)
    {
        std::lock_guard lock(mutex_);
        room_ += more;
    }

    /// "seq:kind" of all events once the wanted one is there, output with its text's length.
    std::vector<std::string> until(const std::string& kind)
    {
        std::unique_lock lock(mutex_);
        const auto arrived = [&] {
            return !events_.empty() && (events_.back()->getValue<std::string>("kind") == kind ||
                                        events_.back()->optValue<std::string>("state", "") == kind);
        };
        EXPECT_TRUE(changed_.wait_for(lock, std::chrono::seconds(20), arrived)) << kind << " did not come";
        std::vector<std::string> seen;
        for (const auto& event : events_)
            seen.push_back(event->getValue<std::string>("seq") + ":" + event->getValue<std::string>("kind"));
        return seen;
    }
    std::string output() const
    {
        std::lock_guard lock(mutex_);
        std::string text;
        for (const auto& event : events_)
            text += event->optValue<std::string>("text", "");
        return text;
    }
    bool untilPrinted(std::size_t bytes)
    {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(20), [&] {
            std::size_t count = 0;
            for (const auto& event : events_)
                count += event->optValue<std::string>("text", "").size();
            return count >= bytes;
        });
    }
    /// Of what was printed to one stream.
    std::string printed(const std::string& stream) const
    {
        std::lock_guard lock(mutex_);
        std::string text;
        for (const auto& event : events_)
            if (event->optValue<std::string>("stream", "") == stream)
                text += event->optValue<std::string>("text", "");
        return text;
    }
    std::size_t missing() const
    {
        std::lock_guard lock(mutex_);
        std::size_t count = 0;
        for (const auto& event : events_)
            count += event->optValue<std::size_t>("missing", 0);
        return count;
    }

private:
    class Series final : public bayeux::BayeuxSeries
    {
    public:
        Series(std::shared_ptr<Client> client, unsigned number) : client_(std::move(client)), number_(number) {}
        bool deliver(bayeux::EventPtr event) override { return !isLost() && client_->deliver(std::move(event)); }
        bool hasRoom() const override { return isLost() || client_->hasRoom(); }
        bool isLost() const override { return client_->over_ || client_->opened_ != number_; }
        bool isAway() const override { return isLost() || client_->away_; }
        void close() override {}

    private:
        const std::shared_ptr<Client> client_;
        const unsigned number_;
    };

    const std::string id_ = "client";
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<json::Object::Ptr> events_;
    std::size_t room_;
    std::atomic<bool> over_{false};
    std::atomic<bool> away_{false};
    std::atomic<bool> dismissed_{false};
    std::atomic<unsigned> opened_{0};
};

class EvaluationTest : public testing::Test
{
protected:
    ~EvaluationTest() override
    {
        if (evaluation)
            evaluation->close();
        pump->stop();
    }

    static Evaluation::Limits limits(std::uint64_t bytes, milliseconds patience)
    {
        Evaluation::Limits made;
        made.logBytes = bytes;
        made.readerPatience = made.inputPatience = patience;
        return made;
    }
    void make(std::uint64_t bytes, milliseconds patience = milliseconds(20'000))
    {
        evaluation = std::make_shared<Evaluation>("e", pump, limits(bytes, patience));
        evaluation->begin();
    }
    /// `count` pieces of 32 KiB, all different.
    std::string print(int count)
    {
        std::string all;
        for (int i = 0; i < count; ++i) {
            const std::string piece(Pieces::kBytes, static_cast<char>('a' + i % 26));
            evaluation->write(rqe::Stream::output, piece);
            all += piece;
        }
        return all;
    }
    void end() { evaluation->end(R"({"kind":"result"})"); }

    std::shared_ptr<Pump> pump = std::make_shared<Pump>();
    std::shared_ptr<Evaluation> evaluation;
};

constexpr std::uint64_t kPlenty = 64u << 20;
constexpr std::uint64_t kTenPieces = 10 * (Pieces::kBytes + 200);

TEST_F(EvaluationTest, WhatLiesInTheFileIsReadBack)
{
    make(kPlenty);
    const auto all = print(300);
    end();
    EXPECT_GT(evaluation->summary().bytes, 2 * EventLog::kMemoryBytes);
    const auto client = std::make_shared<Client>(1'000);
    EXPECT_TRUE(evaluation->attach(client, 0));
    EXPECT_EQ(client->until("ended").size(), 303u);
    EXPECT_TRUE(client->output() == all);
    const auto late = std::make_shared<Client>(1'000);
    EXPECT_TRUE(evaluation->attach(late, 301));
    EXPECT_EQ(late->until("ended"), (std::vector<std::string>{"302:result", "303:state"}));
    const auto beyond = std::make_shared<Client>(1'000);
    EXPECT_TRUE(evaluation->attach(beyond, ~std::uint64_t{0} - 1));
    EXPECT_EQ(beyond->output(), "");
}

TEST_F(EvaluationTest, CodeWaitsForAReaderThatIsBehind)
{
    make(kTenPieces);
    const auto client = std::make_shared<Client>(3);
    evaluation->attach(client, 0);
    auto printing = std::async(std::launch::async, [this] {
        auto all = print(60);
        end();
        return all;
    });
    EXPECT_EQ(printing.wait_for(milliseconds(200)), std::future_status::timeout);
    client->giveRoom(1'000);
    EXPECT_EQ(client->until("ended").size(), 63u);
    EXPECT_TRUE(client->output() == printing.get());
    EXPECT_EQ(client->missing(), 0u);
}

/// Many at once, so that the code and the pump come in any order once the log has room.
TEST(EvaluationOrder, StaysWhereTheLogWasFull)
{
    constexpr int kAtOnce = 16;
    constexpr int kPieces = 60;
    Evaluation::Limits limits;
    limits.logBytes = kTenPieces;
    limits.readerPatience = milliseconds(500);
    std::vector<std::future<void>> all;
    for (int i = 0; i < kAtOnce; ++i)
        all.push_back(std::async(std::launch::async, [limits] {
            const auto pump = std::make_shared<Pump>();
            const auto one = std::make_shared<Evaluation>("e", pump, limits);
            const auto stuck = std::make_shared<Client>(5);
            const auto quick = std::make_shared<Client>(1'000);
            one->begin();
            one->attach(stuck, 0);
            one->attach(quick, 0);
            std::string printed;
            for (int piece = 0; piece < kPieces; ++piece) {
                printed.append(Pieces::kBytes, static_cast<char>('0' + piece));
                one->write(rqe::Stream::output, std::string_view(printed).substr(printed.size() - Pieces::kBytes));
            }
            one->end(R"({"kind":"result"})");
            quick->until("ended");
            EXPECT_TRUE(quick->missing() > 0 || quick->output() == printed);
            one->close();
            pump->stop();
        }));
}

TEST_F(EvaluationTest, ReaderThatStandsStillHoldsNobodyUp)
{
    make(kTenPieces, milliseconds(100));
    const auto stuck = std::make_shared<Client>(2);
    const auto quick = std::make_shared<Client>(1'000);
    evaluation->attach(stuck, 0);
    evaluation->attach(quick, 0);
    const auto all = print(60);
    end();
    EXPECT_EQ(quick->until("ended").size(), 63u);
    EXPECT_EQ(quick->missing(), 0u);
    EXPECT_TRUE(quick->output() == all);
    // It reads again, and learns how much it missed.
    const auto seen = stuck->until("output").size();
    stuck->giveRoom(1'000);
    const auto events = stuck->until("ended");
    EXPECT_EQ(events[seen].substr(events[seen].find(':')), ":gap");
    EXPECT_EQ(stuck->missing() + events.size() - 1, 63u);
}

TEST_F(EvaluationTest, NobodyWaitsForReadersThatAreNotThere)
{
    make(kTenPieces, milliseconds(60'000));
    const auto cut = std::make_shared<Client>(2);
    const auto away = std::make_shared<Client>(2);
    evaluation->attach(cut, 0);
    evaluation->attach(away, 0);
    cut->cut();
    away->goAway(true);
    const auto begin = std::chrono::steady_clock::now();
    print(60);
    end();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    // The one is told by itself when it is back, the other when it asks.
    away->goAway(false);
    away->giveRoom(1'000);
    const auto told = away->until("ended");
    const auto gaps = std::count_if(told.begin(), told.end(), [](const auto& one) { return one.ends_with(":gap"); });
    EXPECT_GT(gaps, 0);
    EXPECT_EQ(away->missing() + told.size() - static_cast<std::size_t>(gaps), 63u);
    const auto had = cut->output();
    cut->giveRoom(1'000);
    evaluation->attach(cut, 62, bayeux::BayeuxEvent::ofText("/hello", R"({"kind":"hello","seq":0})"));
    cut->until("ended");
    EXPECT_EQ(cut->output(), had);
}

TEST_F(EvaluationTest, ReadersThatLeftMakePlaceForOthers)
{
    make(kPlenty);
    std::vector<std::shared_ptr<Client>> clients;
    const auto come = [&] {
        clients.push_back(std::make_shared<Client>(1'000));
        return evaluation->attach(clients.back(), 0);
    };
    for (std::size_t i = 0; i < 2 * Evaluation::kMaxReaders; ++i) {
        EXPECT_TRUE(come()) << i;
        clients.back()->cut();
    }
    clients.clear();
    for (std::size_t i = 0; i < Evaluation::kMaxReaders; ++i)
        EXPECT_TRUE(come()) << i;
    EXPECT_FALSE(come()) << "all are there";
    clients[5]->goAway(true);
    EXPECT_TRUE(come());
    EXPECT_FALSE(come());
    EXPECT_TRUE(clients[5]->wasDismissed()) << "it would wait for ever";
    end();
    clients[6]->until("ended");
    EXPECT_FALSE(clients[6]->wasDismissed());
}

TEST_F(EvaluationTest, WhatIsForgottenIsReadToItsEndByThoseWhoRead)
{
    make(kPlenty, milliseconds(1'000));
    const auto slow = std::make_shared<Client>(2);
    const auto stuck = std::make_shared<Client>(2);
    evaluation->attach(slow, 0);
    evaluation->attach(stuck, 0);
    print(20);
    end();
    evaluation->forget();
    const std::weak_ptr<Evaluation> gone = std::exchange(evaluation, nullptr);
    slow->giveRoom(1'000);
    EXPECT_EQ(slow->until("ended").size(), 23u);
    while (!stuck->wasDismissed() || !gone.expired())
        std::this_thread::yield();
    EXPECT_FALSE(slow->wasDismissed());
}

TEST_F(EvaluationTest, StreamsStayInOrderWhateverTheirWay)
{
    make(kPlenty);
    const auto client = std::make_shared<Client>(100'000);
    evaluation->attach(client, 0);
    std::map<rqe::Stream, std::string> printed;
    std::string all;
    for (int i = 0; i < 50'000; ++i) {
        const auto stream = i % 300 < 3 ? rqe::Stream::error : rqe::Stream::output;
        const std::string text = std::to_string(i) + std::string(i % 1'000 == 0 ? 20'000 : i % 20, '.') + "\n";
        if (!evaluation->tryWrite(stream, text))
            evaluation->write(stream, text);
        printed[stream] += text;
        all += text;
    }
    end();
    client->until("ended");
    EXPECT_TRUE(client->output() == all);
    EXPECT_TRUE(client->printed("error") == printed[rqe::Stream::error]);
    EXPECT_TRUE(client->printed("output") == printed[rqe::Stream::output]);
}

TEST_F(EvaluationTest, ALineComesThoughNothingFollows)
{
    make(kPlenty);
    const auto client = std::make_shared<Client>(100'000);
    evaluation->attach(client, 0);
    for (std::size_t lines = 1; lines <= 200; ++lines) {
        // Now and then while the pump is just about to rest.
        std::this_thread::sleep_for(std::chrono::microseconds(lines * 37 % 700));
        if (!evaluation->tryWrite(rqe::Stream::output, "line\n"))
            evaluation->write(rqe::Stream::output, "line\n");
        if (lines % 2 == 0) {
            ASSERT_TRUE(client->untilPrinted(lines * 5)) << lines;
        }
    }
}

TEST_F(EvaluationTest, WithoutReadersTheOldestGo)
{
    make(kTenPieces);
    print(60);
    end();
    EXPECT_LE(evaluation->summary().bytes, kTenPieces);
    const auto client = std::make_shared<Client>(1'000);
    evaluation->attach(client, 0);
    const auto events = client->until("ended");
    EXPECT_EQ(events.front().substr(events.front().find(':')), ":gap");
    EXPECT_EQ(client->missing() + events.size() - 1, 63u);
    EXPECT_EQ(events.back(), "63:state");
}

TEST_F(EvaluationTest, InputIsAskedForOnceAndEnds)
{
    make(kPlenty, milliseconds(100));
    const auto client = std::make_shared<Client>(1'000);
    evaluation->attach(client, 0);
    EXPECT_FALSE(evaluation->answer("early\n"));
    evaluation->write(rqe::Stream::output, "? ");
    EXPECT_EQ(evaluation->readLine(milliseconds(1)), std::nullopt);
    EXPECT_EQ(evaluation->readLine(milliseconds(1)), std::nullopt);
    EXPECT_EQ(client->until("input"), (std::vector<std::string>{"1:state", "2:output", "3:input"}));
    EXPECT_TRUE(evaluation->answer("line\n"));
    EXPECT_FALSE(evaluation->answer("another\n"));
    EXPECT_EQ(evaluation->readLine(milliseconds(1)), "line\n");
    // A reader that left is waited for a while only.
    client->disconnect();
    while (!evaluation->readLine(milliseconds(10))) {
    }
    EXPECT_FALSE(evaluation->answer("late\n"));
}

TEST_F(EvaluationTest, CloseEndsAllWaiting)
{
    make(kTenPieces);
    const auto client = std::make_shared<Client>(1);
    evaluation->attach(client, 0);
    auto printing = std::async(std::launch::async, [this] { print(60); });
    EXPECT_EQ(printing.wait_for(milliseconds(100)), std::future_status::timeout);
    evaluation->close();
    printing.get();
    EXPECT_EQ(evaluation->readLine(std::chrono::hours(1)), "");
    end();
}

TEST(Pieces, AreCutBetweenCharacters)
{
    Pieces pieces;
    std::string all;
    for (const char* text : {"x", "\xF0\x9F\x98\x80"}) // of one and of four bytes
        for (int i = 0; i < 20'000; ++i) {
            pieces.add(rqe::Stream::output, text);
            all += text;
        }
    pieces.add(rqe::Stream::output, all);
    pieces.add(rqe::Stream::error, std::string(100'000, '\x80')); // no characters at all
    EXPECT_EQ(pieces.bytes(), 2 * all.size() + 100'000);
    std::string output;
    for (const auto& piece : pieces.take()) {
        EXPECT_LE(piece.text.size(), Pieces::kBytes);
        if (piece.stream == rqe::Stream::error)
            continue;
        EXPECT_NE(static_cast<unsigned char>(piece.text.front()) & 0xC0, 0x80);
        output += piece.text;
    }
    EXPECT_TRUE(output == all + all);
    EXPECT_TRUE(pieces.empty());
}

} // namespace
} // namespace connector::interpreter::v1
