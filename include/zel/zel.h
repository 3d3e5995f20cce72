/* The whole public interface of the library. */
#ifndef ZEL_ZEL_H
#define ZEL_ZEL_H

#include "types.h"
#include "platform.h"
#include "message.h"
#include "compress.h"
#include "containers.h"
#include "descriptors.h"
#include "config.h"
#include "addrbk.h"
#include "log.h"
#include "engine.h"
#include "udp.h"

#endif /* ZEL_ZEL_H */
