// Which engine a connection's transport type makes. The transports fill in
// their makers; the facade knows none of them by name.
#pragma once

#include <string_view>

class CIntRxWnd;
class CVartoEngine;

namespace zel {

enum class Transport { zmq, hub, amqp };

// "ZMQ_SUB" and "ZMQ_PUB" (exactly, case-sensitive) are ZeroMQ; "hub" and the
// empty type are the hub; anything else is AMQP.
Transport transport_for(std::string_view type);

// Makes a transport's engine for `window`; may throw std::bad_alloc.
using EngineMaker = CVartoEngine *(*)(CIntRxWnd *window);

// The maker for `transport`; null when this build has no such transport.
// Tests put their own engine here. @locality application thread
EngineMaker &engine_maker(Transport transport);

} // namespace zel
