#include "spidev.h"

#include <cstring>
#include <linux/spi/spidev.h>

namespace sim {

namespace {

/* What the McSPI controller can do; spi_setup() refuses anything else. */
constexpr uint32_t kModeBits = SPI_CPOL | SPI_CPHA | SPI_CS_HIGH;
constexpr unsigned kMinBits = 4;
constexpr unsigned kMaxBits = 32;
constexpr int kDefaultSpeedHz = 10000000; /* from the device tree */
constexpr uint32_t kBufSize = 4096;       /* spidev's bufsiz */

bool bits_ok(unsigned bits)
{
    return bits >= kMinBits && bits <= kMaxBits;
}

/* Words are 1, 2 or 4 bytes in memory, in the CPU's byte order. */
unsigned word_bytes(unsigned bits)
{
    return bits <= 8 ? 1 : bits <= 16 ? 2 : 4;
}

std::string hex_words(const std::vector<uint32_t>& words, unsigned bits)
{
    std::string s;
    int digits = static_cast<int>(word_bytes(bits) * 2);
    char buf[16];
    for (uint32_t w : words) {
        snprintf(buf, sizeof buf, s.empty() ? "%0*x" : " %0*x", digits, w);
        s += buf;
    }
    return s;
}

} // namespace

SpiDev::SpiDev(Board& board, std::string path, SpiChip* chip)
    : Node(std::move(path), S_IFCHR | 0660), board_(board), chip_(chip)
{
    std::string name = this->path().substr(this->path().rfind('/') + 1);
    board.params().add_int(name + ".mode", &mode_, "SPI mode bits of " + this->path(), 0, 0xff);
    board.params().add_int(name + ".bits", &bits_, "bits per word of " + this->path() + " (4..32)", 4, 32);
    board.params().add_int(name + ".speed_hz", &speed_hz_, "maximum clock of " + this->path() + ", Hz", 1, 100000000);
}

void SpiDev::reset()
{
    mode_ = 0;
    bits_ = 8;
    speed_hz_ = kDefaultSpeedHz;
}

/* Settings the program writes are journaled, refused ones with the errno. */
int SpiDev::setting(const char* what, uint32_t value, bool ok)
{
    board_.journal(path(), what, std::to_string(value) + (ok ? "" : " -> EINVAL"));
    return ok ? 0 : -EINVAL;
}

int SpiDev::ioctl(OpenFile&, unsigned long request, void* arg)
{
    if (_IOC_TYPE(request) != SPI_IOC_MAGIC)
        return -ENOTTY;
    if (arg == nullptr)
        return -EFAULT;
    auto* u8 = static_cast<uint8_t*>(arg);
    auto* u32 = static_cast<uint32_t*>(arg);
    switch (request) {
    case SPI_IOC_RD_MODE:
        *u8 = static_cast<uint8_t>(mode_);
        return 0;
    case SPI_IOC_RD_MODE32:
        *u32 = static_cast<uint32_t>(mode_);
        return 0;
    case SPI_IOC_RD_LSB_FIRST:
        *u8 = 0;
        return 0;
    case SPI_IOC_RD_BITS_PER_WORD:
        *u8 = static_cast<uint8_t>(bits_);
        return 0;
    case SPI_IOC_RD_MAX_SPEED_HZ:
        *u32 = static_cast<uint32_t>(speed_hz_);
        return 0;
    case SPI_IOC_WR_MODE:
    case SPI_IOC_WR_MODE32: {
        uint32_t mode = request == SPI_IOC_WR_MODE ? *u8 : *u32;
        bool ok = (mode & ~kModeBits) == 0;
        if (ok)
            mode_ = static_cast<int>(mode);
        return setting("mode", mode, ok);
    }
    case SPI_IOC_WR_LSB_FIRST:
        return setting("lsb_first", *u8, *u8 == 0); /* the controller shifts MSB first only */
    case SPI_IOC_WR_BITS_PER_WORD: {
        unsigned bits = *u8 == 0 ? 8 : *u8;
        if (bits_ok(bits))
            bits_ = static_cast<int>(bits);
        return setting("bits", *u8, bits_ok(bits));
    }
    case SPI_IOC_WR_MAX_SPEED_HZ:
        if (*u32 != 0)
            speed_hz_ = static_cast<int>(*u32);
        return setting("speed", *u32, *u32 != 0);
    default:
        return message(request, arg);
    }
}

/* SPI_IOC_MESSAGE(N): the whole message is checked before anything is sent,
 * as spi_sync() validates it; the result is the number of bytes moved. */
int SpiDev::message(unsigned long request, void* arg)
{
    if (_IOC_NR(request) != 0 || _IOC_DIR(request) != _IOC_WRITE ||
        _IOC_SIZE(request) % sizeof(struct spi_ioc_transfer) != 0)
        return -EINVAL;
    size_t n = _IOC_SIZE(request) / sizeof(struct spi_ioc_transfer);
    auto* xfers = static_cast<struct spi_ioc_transfer*>(arg);
    uint32_t total = 0;
    for (size_t i = 0; i < n; i++) {
        unsigned bits = xfers[i].bits_per_word ? xfers[i].bits_per_word : static_cast<unsigned>(bits_);
        if (!bits_ok(bits) || xfers[i].len % word_bytes(bits) != 0)
            return -EINVAL;
        total += xfers[i].len;
        if (xfers[i].len > kBufSize || total > kBufSize)
            return -EMSGSIZE;
    }
    for (size_t i = 0; i < n; i++) {
        const struct spi_ioc_transfer& x = xfers[i];
        transfer(reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(x.tx_buf)),
                 reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(x.rx_buf)), x.len,
                 x.bits_per_word ? x.bits_per_word : static_cast<unsigned>(bits_));
    }
    return static_cast<int>(total);
}

int64_t SpiDev::read(OpenFile&, void* buf, size_t n)
{
    return half_duplex(nullptr, static_cast<uint8_t*>(buf), n);
}

int64_t SpiDev::write(OpenFile&, const void* buf, size_t n)
{
    return half_duplex(static_cast<const uint8_t*>(buf), nullptr, n);
}

/* read() and write(): one transfer in the device's word size. */
int64_t SpiDev::half_duplex(const uint8_t* tx, uint8_t* rx, size_t n)
{
    if (n > kBufSize)
        return -EMSGSIZE;
    if (n % word_bytes(static_cast<unsigned>(bits_)) != 0)
        return -EINVAL;
    return transfer(tx, rx, static_cast<uint32_t>(n), static_cast<unsigned>(bits_));
}

/* Without a transmit buffer the controller clocks out zeros. */
int64_t SpiDev::transfer(const uint8_t* tx, uint8_t* rx, uint32_t len, unsigned bits)
{
    unsigned size = word_bytes(bits);
    uint32_t mask = bits == 32 ? 0xffffffffu : (1u << bits) - 1;
    std::vector<uint32_t> words;
    for (uint32_t off = 0; off < len; off += size) {
        uint32_t w = 0;
        if (tx != nullptr && size == 1) {
            w = tx[off];
        } else if (tx != nullptr && size == 2) {
            uint16_t half;
            memcpy(&half, tx + off, 2);
            w = half;
        } else if (tx != nullptr) {
            memcpy(&w, tx + off, 4);
        }
        words.push_back(w & mask);
    }
    if (rx != nullptr)
        memset(rx, 0, len);
    chip_->transfer(static_cast<uint32_t>(mode_), bits, words);
    board_.journal(path(), "transfer", hex_words(words, bits)); /* saves the chip's new state too */
    return len;
}

} // namespace sim
