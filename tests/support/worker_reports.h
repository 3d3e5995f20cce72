// An engine without the facade, so that its worker can be looked at: a
// monitor that keeps every report text and, where the engine lets its worker
// be seen, the delay each failed recovery attempt armed.
#pragma once

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "api/receive_window.h"
#include "support/clients.h"

namespace zel::test {

template <class Engine>
struct WorkerReports : CVartoSpy {
    std::vector<std::string> texts;
    std::vector<unsigned> retry_delays; // 0 each where the worker cannot be seen
    std::mutex lock;
    CIntRxWnd window;
    StatusLog statuses;
    Engine engine{&window}; // gone first: its worker reports to the rest

    explicit WorkerReports(const std::string &description) : CVartoSpy(window)
    {
        window.set_listener(&statuses);
        window.set_engine(&engine);
        EXPECT_EQ(engine.create_connection(description, 0, "", "", "", this), 1);
    }
    int report(int level, std::string_view text) override
    {
        {
            std::lock_guard<std::mutex> guard(lock);
            texts.emplace_back(text);
            if (text == "recovery attempt failed, trying again") {
                if constexpr (requires { engine.worker(); })
                    retry_delays.push_back(engine.worker()->reconnect_delay_ms());
                else
                    retry_delays.push_back(0);
            }
        }
        return CVartoSpy::report(level, text);
    }
    size_t retries()
    {
        std::lock_guard<std::mutex> guard(lock);
        return retry_delays.size();
    }
};

} // namespace zel::test
