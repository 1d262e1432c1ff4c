#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>

#include "platform/fl/adaptive_spin.h"

/// The least that a server of evaluations can do: HTTP/1.1 and WebSockets on one thread, without any checks, in front
/// of a queue that another thread empties. Only for clients that are known to behave: a request comes in one piece of
/// at most 64 KiB, has a Content-Length, and a frame has a mask of zeros.
class FloorServer
{
public:
    static constexpr std::size_t kMostTasks = 10'000;
    static constexpr std::size_t kMostWaiting = std::size_t{16} << 20; ///< bytes, of all clients together

    struct Task
    {
        std::uint64_t client = 0;
        bool webSocket = false;
        std::string text; ///< a request's body or a message
    };

    /// Listens on a port of this machine. Throws std::system_error.
    FloorServer();
    ~FloorServer();
    FloorServer(const FloorServer&) = delete;
    FloorServer& operator=(const FloorServer&) = delete;

    std::uint16_t port() const { return port_; }

    /// Readable while tasks wait.
    int taskFd() const { return tasksFd_; }
    /// False when there is none.
    bool takeTask(Task& task);

    /// Sends an answer, or a part of one. Waits while too much waits already; any thread but the server's.
    void answer(const Task& task, std::string text);

    /// Called for `POST /interrupt`, on the server's thread.
    void (*onInterrupt)(void*) = nullptr;
    void* context = nullptr;

private:
    struct Client
    {
        int socket = -1;
        bool webSocket = false;
        bool awaitsRoom = false; ///< in the socket, for what is unsent
        std::string received;
        std::string unsent;
    };

    void serve();
    void accept();
    void readFrom(std::uint64_t id);
    bool takeRequest(std::uint64_t id, Client& client);
    bool takeFrame(std::uint64_t id, Client& client);
    void post(Task task);
    void sendAnswers();
    void flush(std::uint64_t id, Client& client);
    void drop(std::uint64_t id);
    void watch(int descriptor, std::uint64_t id, bool change, bool write);

    int listener_;
    int epoll_;
    int tasksFd_;
    int answersFd_;
    std::uint16_t port_ = 0;
    std::unordered_map<std::uint64_t, Client> clients_;
    std::uint64_t lastId_ = 2; ///< below are the listener's and the answers' descriptors
    std::uint64_t asker_ = 0;  ///< the client of the last task
    fl::AdaptiveSpin spin_;

    std::mutex mutex_;
    std::condition_variable room_;
    bool ended_ = false;
    std::deque<Task> tasks_;
    std::deque<std::pair<std::uint64_t, std::string>> answers_; ///< framed
    std::size_t waiting_ = 0;                                   ///< bytes in answers_ and of clients' unsent
    std::thread thread_;
};
