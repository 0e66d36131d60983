/* The LCD controller's frame buffer, /dev/fb0, as the fbdev core shows it:
 * an RGB565 screen of fb.width x fb.height, its variable and fixed screen
 * information, mmap of the screen memory, and read/write of the file.
 *
 * The screen memory is a file of the board directory (fs/fb0.screen), so the
 * picture stays on the display after the program ends, as on the instrument;
 * a new board starts black. A geometry change gives new memory; mappings the
 * program still holds keep the old pages.
 *
 * Control face: "pixel X Y" (RGB565, hex) and "screenshot FILE" (PNG;
 * relative to the board directory). */
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/fb.h>
#include <png.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "device.h"
#include "syscalls.h"

namespace sim {

class Framebuffer : public Model {
public:
    explicit Framebuffer(Board& board) : board_(board)
    {
        board.add_node(std::make_unique<FbNode>(*this));
        board.params().add_int("fb.width", &width_, "display width, pixels (16..2048)", 16, 2048);
        board.params().add_int("fb.height", &height_, "display height, pixels (16..2048)", 16, 2048);
        board.add_control("pixel", "pixel X Y                    a pixel of the screen, RGB565 (0xf800)\n",
                          [this](const std::string&, const std::vector<std::string>& w) { return pixel(w); });
        board.add_control("screenshot", "screenshot FILE              the screen as a PNG file\n",
                          [this](const std::string&, const std::vector<std::string>& w) { return screenshot(w); });
    }

    ~Framebuffer() override { unmap(); }

    void reset() override
    {
        width_ = 480;
        height_ = 272;
    }

    void create_files(Board&) override { ensure(); }

private:
    /* The geometry of the memory now mapped, which may lag the parameters
     * until ensure(). */
    struct Screen {
        int width = 0;
        int height = 0;
        size_t bytes() const { return static_cast<size_t>(width) * static_cast<size_t>(height) * 2; }
    };

    class FbNode : public Node {
    public:
        explicit FbNode(Framebuffer& fb) : Node("/dev/fb0", S_IFCHR | 0660), fb_(fb) {}

        int open(OpenFile&) override { return fb_.ensure() ? 0 : -ENOMEM; }
        int64_t size() override { return static_cast<int64_t>(fb_.screen_.bytes()); }

        int64_t read(OpenFile& of, void* buf, size_t n) override
        {
            if (!fb_.ensure())
                return -ENOMEM;
            size_t total = fb_.screen_.bytes();
            if (of.pos >= static_cast<int64_t>(total))
                return 0;
            size_t count = std::min(n, total - static_cast<size_t>(of.pos));
            memcpy(buf, fb_.mem_ + of.pos, count);
            of.pos += static_cast<int64_t>(count);
            return static_cast<int64_t>(count);
        }

        /* As fb_write: past the end is EFBIG, a write reaching over it is
         * cut short, and one that finds no room is ENOSPC. */
        int64_t write(OpenFile& of, const void* buf, size_t n) override
        {
            if (!fb_.ensure())
                return -ENOMEM;
            size_t total = fb_.screen_.bytes();
            if (of.pos > static_cast<int64_t>(total))
                return -EFBIG;
            size_t count = std::min(n, total - static_cast<size_t>(of.pos));
            if (count == 0 && n > 0)
                return -ENOSPC;
            memcpy(fb_.mem_ + of.pos, buf, count);
            of.pos += static_cast<int64_t>(count);
            return static_cast<int64_t>(count);
        }

        int ioctl(OpenFile&, unsigned long request, void* arg) override
        {
            if (!fb_.ensure())
                return -ENOMEM;
            const Screen& s = fb_.screen_;
            switch (request) {
            case FBIOGET_VSCREENINFO: {
                if (arg == nullptr)
                    return -EFAULT;
                struct fb_var_screeninfo v;
                memset(&v, 0, sizeof v);
                v.xres = v.xres_virtual = static_cast<uint32_t>(s.width);
                v.yres = v.yres_virtual = static_cast<uint32_t>(s.height);
                v.bits_per_pixel = 16;
                v.red = {11, 5, 0};
                v.green = {5, 6, 0};
                v.blue = {0, 5, 0};
                v.height = v.width = ~0u; /* size in mm unknown */
                v.vmode = FB_VMODE_NONINTERLACED;
                memcpy(arg, &v, sizeof v);
                return 0;
            }
            case FBIOGET_FSCREENINFO: {
                if (arg == nullptr)
                    return -EFAULT;
                struct fb_fix_screeninfo f;
                memset(&f, 0, sizeof f);
                snprintf(f.id, sizeof f.id, "DA8xx FB Drv");
                f.smem_start = kPhys;
                f.smem_len = static_cast<uint32_t>(s.bytes());
                f.type = FB_TYPE_PACKED_PIXELS;
                f.visual = FB_VISUAL_TRUECOLOR;
                f.line_length = static_cast<uint32_t>(s.width) * 2;
                memcpy(arg, &f, sizeof f);
                return 0;
            }
            case FBIOBLANK:
                return 0;
            default:
                return -ENOTTY;
            }
        }

        /* fb_mmap: up to the page-rounded end of the screen memory. */
        void* mmap(OpenFile&, void* addr, size_t len, int prot, int flags, int64_t off, int* err) override
        {
            if (!fb_.ensure()) {
                *err = ENOMEM;
                return MAP_FAILED;
            }
            size_t limit = fb_.mapped_;
            if (off < 0 || static_cast<size_t>(off) > limit || len > limit - static_cast<size_t>(off)) {
                *err = EINVAL;
                return MAP_FAILED;
            }
            void* p = SIM_REAL(mmap)(addr, len, prot, flags, fb_.fd_, off);
            if (p == MAP_FAILED)
                *err = errno;
            return p;
        }

        int munmap(void* addr, size_t len) override { return SIM_REAL(munmap)(addr, len) == 0 ? 0 : -errno; }

    private:
        Framebuffer& fb_;
    };

    static constexpr unsigned long kPhys = 0x8f800000;

    std::string file() const { return board_.dir() + "/fs/fb0.screen"; }

    /* Memory of the current geometry, on the board's screen file: kept when
     * it is there (a continued board), new and black otherwise. */
    bool ensure()
    {
        struct stat st, cur;
        bool same_file = fd_ >= 0 && SIM_REAL(stat)(file().c_str(), &st) == 0 && SIM_REAL(fstat)(fd_, &cur) == 0 &&
                         st.st_ino == cur.st_ino && st.st_dev == cur.st_dev;
        if (same_file && screen_.width == width_ && screen_.height == height_)
            return true;
        unmap();
        Screen s{width_, height_};
        long page = sysconf(_SC_PAGESIZE);
        size_t len = (s.bytes() + static_cast<size_t>(page) - 1) / static_cast<size_t>(page) * static_cast<size_t>(page);
        std::string path = file();
        int fd = SIM_REAL(open)(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd < 0 || SIM_REAL(fstat)(fd, &st) != 0) {
            perror("velasim: framebuffer memory");
            if (fd >= 0)
                SIM_REAL(close)(fd);
            return false;
        }
        /* Another size is another screen: start it black. */
        if (static_cast<size_t>(st.st_size) != len && (ftruncate(fd, 0) != 0 || ftruncate(fd, static_cast<off_t>(len)) != 0)) {
            perror("velasim: framebuffer memory");
            SIM_REAL(close)(fd);
            return false;
        }
        void* p = SIM_REAL(mmap)(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (p == MAP_FAILED) {
            perror("velasim: framebuffer memory");
            SIM_REAL(close)(fd);
            return false;
        }
        fd_ = fd;
        mem_ = static_cast<uint8_t*>(p);
        mapped_ = len;
        screen_ = s;
        return true;
    }

    void unmap()
    {
        if (mem_ != nullptr)
            SIM_REAL(munmap)(mem_, mapped_);
        if (fd_ >= 0)
            SIM_REAL(close)(fd_);
        mem_ = nullptr;
        fd_ = -1;
        mapped_ = 0;
        screen_ = Screen{};
    }

    uint16_t at(int x, int y) const
    {
        uint16_t v = 0;
        memcpy(&v, mem_ + (static_cast<size_t>(y) * static_cast<size_t>(screen_.width) + static_cast<size_t>(x)) * 2,
               sizeof v);
        return v;
    }

    std::string pixel(const std::vector<std::string>& w)
    {
        if (!ensure())
            return "error: no screen memory\n";
        long xy[2] = {-1, -1};
        for (size_t i = 0; i < 2 && w.size() == 3; i++) {
            char* end = nullptr;
            xy[i] = strtol(w[i + 1].c_str(), &end, 10);
            if (end == w[i + 1].c_str() || *end != '\0')
                xy[i] = -1;
        }
        if (xy[0] < 0 || xy[0] >= screen_.width || xy[1] < 0 || xy[1] >= screen_.height)
            return "error: usage: pixel X Y (0.." + std::to_string(screen_.width - 1) + ", 0.." +
                   std::to_string(screen_.height - 1) + ")\n";
        char buf[16];
        snprintf(buf, sizeof buf, "0x%04x\n", at(static_cast<int>(xy[0]), static_cast<int>(xy[1])));
        return std::string(buf) + "ok\n";
    }

    /* 5 and 6 bits widened to 8 as a display shows them (the top bits
     * repeated below). */
    std::string screenshot(const std::vector<std::string>& w)
    {
        if (w.size() != 2)
            return "error: usage: screenshot FILE\n";
        if (!ensure())
            return "error: no screen memory\n";
        std::vector<uint8_t> rgb(static_cast<size_t>(screen_.width) * static_cast<size_t>(screen_.height) * 3);
        size_t i = 0;
        for (int y = 0; y < screen_.height; y++) {
            for (int x = 0; x < screen_.width; x++) {
                uint16_t v = at(x, y);
                unsigned r = v >> 11, g = (v >> 5) & 0x3f, b = v & 0x1f;
                rgb[i++] = static_cast<uint8_t>(r << 3 | r >> 2);
                rgb[i++] = static_cast<uint8_t>(g << 2 | g >> 4);
                rgb[i++] = static_cast<uint8_t>(b << 3 | b >> 2);
            }
        }
        png_image image;
        memset(&image, 0, sizeof image);
        image.version = PNG_IMAGE_VERSION;
        image.width = static_cast<png_uint_32>(screen_.width);
        image.height = static_cast<png_uint_32>(screen_.height);
        image.format = PNG_FORMAT_RGB;
        png_alloc_size_t size = 0;
        std::string png;
        if (png_image_write_to_memory(&image, nullptr, &size, 0, rgb.data(), 0, nullptr)) {
            png.resize(size);
            bool ok = png_image_write_to_memory(&image, png.data(), &size, 0, rgb.data(), 0, nullptr);
            png.resize(ok ? size : 0);
        }
        if (png.empty()) {
            std::string why = image.message;
            png_image_free(&image);
            return "error: png: " + why + "\n";
        }
        std::string path = w[1][0] == '/' ? w[1] : board_.dir() + "/" + w[1];
        if (!write_whole_file(path, png, board_.dir()))
            return "error: cannot write " + path + "\n";
        return "ok\n";
    }

    Board& board_;
    int width_ = 480;
    int height_ = 272;
    Screen screen_;
    int fd_ = -1;
    uint8_t* mem_ = nullptr;
    size_t mapped_ = 0;
};

VELASIM_DEVICE(Framebuffer);

} // namespace sim
