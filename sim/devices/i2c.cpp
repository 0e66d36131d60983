#include "i2c.h"

#include <cstdio>

#include "device.h"
#include <linux/i2c-dev.h>
#include <linux/i2c.h>

namespace sim {

namespace {

/* The address this open file talks to; 0 until I2C_SLAVE, as in i2c-dev. */
struct I2cOpen : OpenState {
    int addr = 0;
};

constexpr size_t kMaxTransfer = 8192;

} // namespace

void I2cBus::attach(int addr, I2cChip* chip)
{
    chips_[addr] = chip;
    board_.add_fault_target(chip_name(addr), {"read", "write"});
}

std::string I2cBus::chip_name(int addr) const
{
    char buf[16];
    snprintf(buf, sizeof buf, "@0x%02x", addr);
    return path() + buf;
}

int I2cBus::open(OpenFile& of)
{
    of.state = std::make_unique<I2cOpen>();
    return 0;
}

int64_t I2cBus::transfer(int addr, bool is_read, uint8_t* data, size_t n)
{
    std::string name = chip_name(addr);
    const char* op = is_read ? "read" : "write";
    auto it = chips_.find(addr);
    FaultHit f = board_.take_fault(name, op);
    if (f.cut) {
        board_.power_cut(name, op);
        return -EIO;
    }
    int err = 0;
    if (it == chips_.end())
        err = -EREMOTEIO; /* nobody acknowledged the address: i2c-omap reports the NACK */
    else if (f.hit && !f.is_short)
        err = -f.err;
    if (err == 0 && f.is_short && n > 0)
        n--;
    if (err == 0)
        err = is_read ? it->second->read(data, n) : it->second->write(data, n);

    std::string details;
    if (!is_read || err == 0)
        details = hex_bytes(data, n);
    if (err < 0)
        details += (details.empty() ? "-> " : " -> ") + errno_name(-err);
    board_.journal(name, op, details);
    return err < 0 ? err : static_cast<int64_t>(n);
}

int64_t I2cBus::read(OpenFile& of, void* buf, size_t n)
{
    if (n > kMaxTransfer)
        return -EINVAL;
    return transfer(static_cast<I2cOpen&>(*of.state).addr, true, static_cast<uint8_t*>(buf), n);
}

int64_t I2cBus::write(OpenFile& of, const void* buf, size_t n)
{
    if (n > kMaxTransfer)
        return -EINVAL;
    std::vector<uint8_t> data(static_cast<const uint8_t*>(buf), static_cast<const uint8_t*>(buf) + n);
    return transfer(static_cast<I2cOpen&>(*of.state).addr, false, data.data(), n);
}

int I2cBus::ioctl(OpenFile& of, unsigned long request, void* arg)
{
    I2cOpen& st = static_cast<I2cOpen&>(*of.state);
    unsigned long value = reinterpret_cast<unsigned long>(arg);
    switch (request) {
    case I2C_SLAVE:
    case I2C_SLAVE_FORCE:
        if (value > 0x7f)
            return -EINVAL;
        st.addr = static_cast<int>(value);
        return 0;
    case I2C_TENBIT:
        return value != 0 ? -EINVAL : 0;
    case I2C_RETRIES:
    case I2C_TIMEOUT:
        return 0;
    case I2C_FUNCS:
        *static_cast<unsigned long*>(arg) = I2C_FUNC_I2C | I2C_FUNC_SMBUS_EMUL;
        return 0;
    case I2C_RDWR: {
        /* Combined transfers: each message on its own, stopping at the first
         * failure; the result is the number of messages done. */
        auto* rdwr = static_cast<struct i2c_rdwr_ioctl_data*>(arg);
        if (rdwr == nullptr || rdwr->nmsgs > I2C_RDWR_IOCTL_MAX_MSGS)
            return -EINVAL;
        for (unsigned i = 0; i < rdwr->nmsgs; i++) {
            const struct i2c_msg& m = rdwr->msgs[i];
            if (m.len > kMaxTransfer || (m.flags & I2C_M_TEN))
                return -EINVAL;
            int64_t r = transfer(m.addr, (m.flags & I2C_M_RD) != 0, m.buf, m.len);
            if (r < 0)
                return static_cast<int>(r);
        }
        return static_cast<int>(rdwr->nmsgs);
    }
    default:
        return -ENOTTY;
    }
}

I2c::I2c(Board& board)
{
    for (int n = 0; n < 2; n++) {
        auto bus = std::make_unique<I2cBus>(board, "/dev/i2c-" + std::to_string(n));
        buses_[n] = bus.get();
        board.add_node(std::move(bus));
    }
}

VELASIM_DEVICE(I2c);

} // namespace sim
