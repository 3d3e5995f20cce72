// The engine each transport type makes.
#include "api/engine_factory.h"
#include "transport/amqp/amqp_engine.h"
#include "transport/hub/hub_engine.h"
#include "transport/zmq/zmq_engine.h"

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
    static EngineMaker makers[] = {make_zmq_engine, make_hub_engine, make_amqp_engine};
    return makers[int(transport)];
}

} // namespace zel
