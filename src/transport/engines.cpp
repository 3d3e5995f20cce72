// The engine each transport type makes.
#include "api/engine_factory.h"

namespace zel {

Transport transport_for(std::string_view type)
{
    if (type == "ZMQ_SUB" || type == "ZMQ_PUB")
        return Transport::zmq;
    if (type.empty() || type == "hub")
        return Transport::hub;
    return Transport::amqp;
}

EngineMaker &engine_maker(Transport transport)
{
    static EngineMaker makers[] = {nullptr, nullptr, nullptr};
    return makers[int(transport)];
}

} // namespace zel
