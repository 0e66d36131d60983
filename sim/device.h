/*
 * Registering a device: one line at the end of its file,
 *
 *     VELASIM_DEVICE(MotorDac, Drive, I2c);
 *
 * builds a MotorDac once Drive and I2c exist, as
 * board.add(std::make_unique<MotorDac>(board, drive, i2c)). The constructor
 * adds the device's nodes, parameters and fault targets. Devices are built,
 * and their models advanced, in the order their dependencies give (ties by
 * name), so physics comes before the devices that watch it.
 */
#ifndef VELASIM_DEVICE_H
#define VELASIM_DEVICE_H

#include <memory>
#include <typeindex>

#include "board.h"

namespace sim {

template <class T, class... Needs> struct DeviceRegistration {
    explicit DeviceRegistration(const char* name)
    {
        register_device_type({name, std::type_index(typeid(T)), {std::type_index(typeid(Needs))...},
                              [](Board& b) { b.add(std::make_unique<T>(b, b.device<Needs>()...)); }});
    }
};

} // namespace sim

/* Registered before the board can start in a library constructor. */
#define VELASIM_DEVICE(T, ...)                                                                           \
    static const ::sim::DeviceRegistration<T __VA_OPT__(, ) __VA_ARGS__> velasim_device_##T                \
        __attribute__((init_priority(1000)))(#T)

#endif
