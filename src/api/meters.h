// The positions of the meters the engines count themselves (the window
// counts the rest).
#pragma once

namespace zel::meter {

constexpr int messages_sent = 7;
constexpr int requests_sent = 9;
constexpr int data_sent = 11;
constexpr int bytes_sent = 14; // the worker's own counter
constexpr int data_messages_sent = 16;
constexpr int discarded_frames = 18;

} // namespace zel::meter
