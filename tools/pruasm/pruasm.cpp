/*
 * Two passes over the source: the first gives every statement its section
 * and address and defines the labels (every instruction has a fixed size,
 * so nothing depends on operand values), the second evaluates operands and
 * encodes. Errors are collected per statement so that one run reports all
 * of them.
 */
#include "pruasm.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>

namespace pruasm {
namespace {

/* Thrown while a statement is evaluated; becomes one "file:line:" error. */
struct Error {
    std::string msg;
};

std::string lower(std::string_view s)
{
    std::string r(s);
    for (char& c : r)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return r;
}

std::string_view trim(std::string_view s)
{
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front())))
        s.remove_prefix(1);
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back())))
        s.remove_suffix(1);
    return s;
}

bool all_digits(std::string_view s)
{
    return std::all_of(s.begin(), s.end(), [](char c) { return std::isdigit(static_cast<unsigned char>(c)); });
}

bool ident_start(char c) { return std::isalpha(static_cast<unsigned char>(c)) || c == '_' || c == '.'; }
bool ident_char(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.'; }

std::string hex(int64_t v)
{
    char b[24];
    uint64_t mag = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
    std::snprintf(b, sizeof b, "%s0x%llx", v < 0 ? "-" : "", static_cast<unsigned long long>(mag));
    return b;
}

/* ---- registers ---------------------------------------------------------- */

struct Reg {
    uint32_t num;
    uint32_t sel; /* field selector: 0..3 = .b0..b3, 4..6 = .w0..w2, 7 = whole */
    bool amp;     /* written as &rN (a burst start) */

    uint32_t field() const { return sel << 5 | num; }
};

/* Anything shaped like a register (r<digits>, sp, ra, fp, with or without a
 * suffix) is a register or an error, never a symbol. */
bool register_shaped(std::string_view s)
{
    std::string l = lower(s);
    if (!l.empty() && l[0] == '&')
        l.erase(0, 1);
    std::string base = l.substr(0, l.find('.'));
    if (base == "sp" || base == "ra" || base == "fp")
        return true;
    return base.size() >= 2 && base[0] == 'r' && all_digits(base.substr(1));
}

std::optional<Reg> parse_reg(std::string_view text)
{
    std::string_view s = trim(text);
    if (!register_shaped(s))
        return std::nullopt;
    std::string l = lower(s);
    Reg r{0, 7, false};
    if (l[0] == '&') {
        r.amp = true;
        l.erase(0, 1);
    }
    size_t dot = l.find('.');
    std::string base = l.substr(0, dot);
    std::string suffix = dot == std::string::npos ? "" : l.substr(dot + 1);
    if (base == "sp")
        r.num = 2;
    else if (base == "ra")
        r.num = 3;
    else if (base == "fp")
        r.num = 4;
    else if (base.size() <= 3 && std::stoi(base.substr(1)) <= 31)
        r.num = static_cast<uint32_t>(std::stoi(base.substr(1)));
    else
        throw Error{"no register '" + std::string(s) + "' (r0..r31)"};
    if (dot != std::string::npos) {
        if (suffix.size() == 2 && suffix[0] == 'b' && suffix[1] >= '0' && suffix[1] <= '3')
            r.sel = static_cast<uint32_t>(suffix[1] - '0');
        else if (suffix.size() == 2 && suffix[0] == 'w' && suffix[1] >= '0' && suffix[1] <= '2')
            r.sel = 4 + static_cast<uint32_t>(suffix[1] - '0');
        else
            throw Error{"bad field selector in '" + std::string(s) + "' (.b0..b3, .w0..w2)"};
    }
    return r;
}

/* ---- expressions -------------------------------------------------------- */

class Assembler;

/* Recursive descent over C-like precedence: | ^ & << >> + - * / % unary. */
class Expr {
public:
    Expr(std::string_view s, const Assembler& as, int64_t dot) : s_(s), as_(as), dot_(dot) {}

    int64_t eval()
    {
        int64_t v = binary(0);
        skip();
        if (pos_ != s_.size())
            throw unexpected();
        return v;
    }

private:
    void skip()
    {
        while (pos_ < s_.size() && std::isspace(static_cast<unsigned char>(s_[pos_])))
            ++pos_;
    }
    bool take(std::string_view op)
    {
        skip();
        if (s_.substr(pos_, op.size()) != op)
            return false;
        pos_ += op.size();
        return true;
    }

    /* Levels, loosest first; within a level, left to right. */
    int64_t binary(int level)
    {
        static const std::vector<std::vector<std::string_view>> levels = {
            {"|"}, {"^"}, {"&"}, {"<<", ">>"}, {"+", "-"}, {"*", "/", "%"}};
        if (level == static_cast<int>(levels.size()))
            return unary();
        int64_t v = binary(level + 1);
        for (;;) {
            std::string_view op;
            for (std::string_view o : levels[static_cast<size_t>(level)]) {
                if (take(o)) {
                    op = o;
                    break;
                }
            }
            if (op.empty())
                return v;
            int64_t r = binary(level + 1);
            v = apply(op, v, r);
        }
    }

    /* Arithmetic wraps at 64 bits rather than overflowing; range checks of
     * the operands catch what does not fit. */
    static int64_t apply(std::string_view op, int64_t a, int64_t b)
    {
        uint64_t ua = static_cast<uint64_t>(a), ub = static_cast<uint64_t>(b);
        if (op == "|") return a | b;
        if (op == "^") return a ^ b;
        if (op == "&") return a & b;
        if (op == "+") return static_cast<int64_t>(ua + ub);
        if (op == "-") return static_cast<int64_t>(ua - ub);
        if (op == "*") return static_cast<int64_t>(ua * ub);
        if ((op == "/" || op == "%") && b == 0)
            throw Error{"division by zero"};
        if ((op == "/" || op == "%") && b == -1)
            return op == "/" ? static_cast<int64_t>(0 - ua) : 0;
        if (op == "/") return a / b;
        if (op == "%") return a % b;
        if (b < 0 || b > 63)
            throw Error{"shift count " + std::to_string(b) + " out of range 0..63"};
        return op == "<<" ? static_cast<int64_t>(static_cast<uint64_t>(a) << b) : a >> b;
    }

    int64_t unary()
    {
        if (take("-"))
            return static_cast<int64_t>(0 - static_cast<uint64_t>(unary()));
        if (take("~"))
            return ~unary();
        if (take("+"))
            return unary();
        return primary();
    }

    int64_t primary();

    Error unexpected() const
    {
        return Error{"unexpected '" + std::string(s_.substr(pos_)) + "' in expression '" + std::string(trim(s_)) + "'"};
    }

    std::string_view s_;
    size_t pos_ = 0;
    int depth_ = 0;
    const Assembler& as_;
    int64_t dot_;
};

/* ---- the assembler ------------------------------------------------------ */

enum Section { kText, kData };

enum Kind {
    kAlu, kNot, kBitOp, kMov, kNop, kLmbd, kJmp, kJal, kCall, kRet, kLdi, kLdi32, kHalt_, kSlp,
    kXfr, kZero, kLoop, kQb, kQba, kQbb, kWb, kMem
};

struct OpInfo {
    Kind kind;
    uint32_t bits; /* opcode bits the kind's encoder starts from */
};

const std::map<std::string, OpInfo, std::less<>>& ops()
{
    static const std::map<std::string, OpInfo, std::less<>> table = {
        {"add", {kAlu, 0u << 25}},   {"adc", {kAlu, 1u << 25}},   {"sub", {kAlu, 2u << 25}},
        {"suc", {kAlu, 3u << 25}},   {"lsl", {kAlu, 4u << 25}},   {"lsr", {kAlu, 5u << 25}},
        {"rsb", {kAlu, 6u << 25}},   {"rsc", {kAlu, 7u << 25}},   {"and", {kAlu, 8u << 25}},
        {"or", {kAlu, 9u << 25}},    {"xor", {kAlu, 10u << 25}},  {"not", {kNot, 11u << 25}},
        {"min", {kAlu, 12u << 25}},  {"max", {kAlu, 13u << 25}},  {"clr", {kBitOp, 14u << 25}},
        {"set", {kBitOp, 15u << 25}}, {"mov", {kMov, 9u << 25}},  {"nop", {kNop, 0x12E0E0E0}},
        {"lmbd", {kLmbd, 0x26000000}}, {"jmp", {kJmp, 0x20000000}}, {"jal", {kJal, 0x22000000}},
        {"call", {kCall, 0x22000000}}, {"ret", {kRet, 0x20000000}}, {"ldi", {kLdi, 0x24000000}},
        {"ldi32", {kLdi32, 0x24000000}}, {"halt", {kHalt_, kHalt}}, {"slp", {kSlp, 0x3E000000}},
        /* XFR: 01 XIN, 10 XOUT, 11 XCHG in bits 24..23; bit 14 = with status */
        {"xin", {kXfr, 0x2E800000}}, {"xout", {kXfr, 0x2F000000}}, {"xchg", {kXfr, 0x2F800000}},
        {"sxin", {kXfr, 0x2E804000}}, {"sxout", {kXfr, 0x2F004000}}, {"sxchg", {kXfr, 0x2F804000}},
        /* ZERO and FILL are XIN from the pseudo devices 255 and 254. */
        {"zero", {kZero, 0x2E800000 | 255u << 15}}, {"fill", {kZero, 0x2E800000 | 254u << 15}},
        {"loop", {kLoop, 0x30000000}}, {"iloop", {kLoop, 0x30008000}},
        /* quick branches: GT EQ LT in bits 29..27 */
        {"qbgt", {kQb, 0x40000000 | 4u << 27}}, {"qbge", {kQb, 0x40000000 | 6u << 27}},
        {"qblt", {kQb, 0x40000000 | 1u << 27}}, {"qble", {kQb, 0x40000000 | 3u << 27}},
        {"qbeq", {kQb, 0x40000000 | 2u << 27}}, {"qbne", {kQb, 0x40000000 | 5u << 27}},
        {"qba", {kQba, 0x40000000 | 7u << 27}},
        /* bit branches: BS bit 28, BC bit 27; WBS waits while the bit is clear */
        {"qbbs", {kQbb, 0xD0000000}}, {"qbbc", {kQbb, 0xC8000000}},
        {"wbc", {kWb, 0xD0000000}}, {"wbs", {kWb, 0xC8000000}},
        {"sbbo", {kMem, 0xE0000000}}, {"lbbo", {kMem, 0xF0000000}},
        {"sbco", {kMem, 0x80000000}}, {"lbco", {kMem, 0x90000000}},
    };
    return table;
}

struct Stmt {
    size_t line; /* 0-based index into the source lines */
    std::string op; /* lower case */
    std::vector<std::string> args;
    Section section;
    uint32_t addr;
    uint32_t size;
    std::vector<uint32_t> words; /* what it produced (bytes for .byte) */
};

struct Symbol {
    size_t line;
    bool label;
    int64_t value;    /* a label's address, or an .equ once evaluated */
    std::string expr; /* .equ */
    int64_t dot;      /* the location counter where the .equ stands */
    bool busy = false;
    bool evaluated = false;
};

class Assembler {
public:
    Assembler(std::string_view file, std::optional<uint32_t> entry) : file_(file), want_entry_(entry) {}

    Output run(std::string_view source);
    int64_t symbol(const std::string& name) const;

private:
    void error(size_t line, const std::string& msg);
    void first_pass(size_t line, std::string_view text);
    void define(const std::string& name, Symbol sym);
    void place(Stmt& st);
    void encode(Stmt& st);
    void check_entry();
    void write_images();
    void write_listing();

    int64_t value(const std::string& arg, int64_t dot) const { return Expr(arg, *this, dot).eval(); }
    int64_t imm(const std::string& arg, int64_t lo, int64_t hi, const char* what, int64_t dot) const;

    std::string file_;
    std::optional<uint32_t> want_entry_;
    std::vector<std::string> lines_;
    std::vector<Stmt> stmts_;
    mutable std::map<std::string, Symbol> symbols_;
    std::vector<std::pair<size_t, std::string>> errors_;
    uint32_t counter_[2] = {0, 0};
    bool overflowed_[2] = {false, false};
    Section section_ = kText;
    std::optional<std::pair<size_t, std::string>> entry_label_;
    Output out_;
};

int64_t Expr::primary()
{
    skip();
    if (take("(")) {
        if (++depth_ > 64)
            throw Error{"expression nested too deeply"};
        int64_t v = binary(0);
        --depth_;
        if (!take(")"))
            throw Error{"missing ')' in '" + std::string(trim(s_)) + "'"};
        return v;
    }
    if (pos_ >= s_.size())
        throw Error{"missing operand in expression '" + std::string(trim(s_)) + "'"};
    char c = s_[pos_];
    if (std::isdigit(static_cast<unsigned char>(c))) {
        size_t start = pos_;
        while (pos_ < s_.size() && std::isalnum(static_cast<unsigned char>(s_[pos_])))
            ++pos_;
        std::string tok = lower(s_.substr(start, pos_ - start));
        int base = 10;
        std::string digits = tok;
        if (tok.size() > 2 && tok[0] == '0' && (tok[1] == 'x' || tok[1] == 'b')) {
            base = tok[1] == 'x' ? 16 : 2;
            digits = tok.substr(2);
        }
        uint64_t v = 0;
        for (char d : digits) {
            int dv = std::isdigit(static_cast<unsigned char>(d)) ? d - '0' : d >= 'a' && d <= 'f' ? d - 'a' + 10 : 99;
            if (dv >= base || v > (UINT64_C(1) << 40))
                throw Error{"bad number '" + tok + "'"};
            v = v * static_cast<uint64_t>(base) + static_cast<uint64_t>(dv);
        }
        return static_cast<int64_t>(v);
    }
    if (ident_start(c)) {
        size_t start = pos_;
        ++pos_;
        while (pos_ < s_.size() && ident_char(s_[pos_]))
            ++pos_;
        std::string name(s_.substr(start, pos_ - start));
        if (name == ".")
            return dot_;
        if (register_shaped(name))
            throw Error{"register '" + name + "' where a value is expected"};
        return as_.symbol(name);
    }
    throw unexpected();
}

int64_t Assembler::symbol(const std::string& name) const
{
    auto it = symbols_.find(name);
    if (it == symbols_.end())
        throw Error{"undefined symbol '" + name + "'"};
    Symbol& s = it->second;
    if (s.label || s.evaluated)
        return s.value;
    if (s.busy)
        throw Error{"symbol '" + name + "' is defined in terms of itself"};
    s.busy = true;
    try {
        s.value = Expr(s.expr, *this, s.dot).eval();
    } catch (...) {
        s.busy = false;
        throw;
    }
    s.busy = false;
    s.evaluated = true;
    return s.value;
}

void Assembler::error(size_t line, const std::string& msg)
{
    errors_.emplace_back(line, file_ + ":" + std::to_string(line + 1) + ": " + msg);
}

int64_t Assembler::imm(const std::string& arg, int64_t lo, int64_t hi, const char* what, int64_t dot) const
{
    int64_t v = value(arg, dot);
    if (v < lo || v > hi)
        throw Error{std::string(what) + " " + std::to_string(v) + " out of range " + std::to_string(lo) + ".." +
                    std::to_string(hi)};
    return v;
}

/* Cuts comments: ';' and '//' to the end of the line, '/ * ... * /' within it. */
std::string strip_comments(std::string_view text)
{
    std::string r;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == ';' || text.substr(i, 2) == "//")
            break;
        if (text.substr(i, 2) == "/*") {
            size_t end = text.find("*/", i + 2);
            if (end == std::string_view::npos)
                throw Error{"'/*' comment not closed on its line"};
            r += ' ';
            i = end + 1;
            continue;
        }
        r += text[i];
    }
    return r;
}

std::vector<std::string> split_args(std::string_view s)
{
    std::vector<std::string> args;
    if (trim(s).empty())
        return args;
    int depth = 0;
    size_t start = 0;
    for (size_t i = 0; i <= s.size(); ++i) {
        if (i == s.size() || (s[i] == ',' && depth == 0)) {
            std::string_view a = trim(s.substr(start, i - start));
            if (a.empty())
                throw Error{"empty operand"};
            args.emplace_back(a);
            start = i + 1;
        } else if (s[i] == '(') {
            ++depth;
        } else if (s[i] == ')') {
            --depth;
        }
    }
    return args;
}

void Assembler::define(const std::string& name, Symbol sym)
{
    if (name.empty() || !ident_start(name[0]) || !std::all_of(name.begin(), name.end(), ident_char) || name == ".")
        throw Error{"'" + name + "' is not a symbol name"};
    if (register_shaped(name))
        throw Error{"'" + name + "' is a register name and cannot be a symbol"};
    auto [it, fresh] = symbols_.emplace(name, std::move(sym));
    if (!fresh)
        throw Error{"symbol '" + name + "' already defined on line " + std::to_string(it->second.line + 1)};
}

void Assembler::first_pass(size_t line, std::string_view raw)
{
    std::string text = strip_comments(raw);
    std::string_view rest = trim(text);
    /* leading labels */
    for (;;) {
        size_t n = 0;
        if (rest.empty() || !ident_start(rest[0]))
            break;
        while (n < rest.size() && ident_char(rest[n]))
            ++n;
        std::string_view after = trim(rest.substr(n));
        if (after.empty() || after[0] != ':')
            break;
        /* a bad label still lets the rest of the line take its place */
        try {
            define(std::string(rest.substr(0, n)), Symbol{line, true, counter_[section_], "", 0});
        } catch (const Error& e) {
            error(line, e.msg);
        }
        rest = trim(after.substr(1));
    }
    if (rest.empty())
        return;
    size_t n = 0;
    while (n < rest.size() && !std::isspace(static_cast<unsigned char>(rest[n])))
        ++n;
    Stmt st{line, lower(rest.substr(0, n)), split_args(rest.substr(n)), section_, counter_[section_], 0, {}};
    place(st);
    stmts_.push_back(std::move(st));
}

void expect_args(const Stmt& st, size_t lo, size_t hi)
{
    if (st.args.size() < lo || st.args.size() > hi) {
        std::string count = lo == hi ? std::to_string(lo) : std::to_string(lo) + " or " + std::to_string(hi);
        throw Error{"'" + st.op + "' takes " + count + " operand" + (hi == 1 ? "" : "s") + ", not " +
                    std::to_string(st.args.size())};
    }
}

/* First pass for one statement: directives that shape the layout act now,
 * everything else only gets its address and size. */
void Assembler::place(Stmt& st)
{
    uint32_t& counter = counter_[section_];
    if (st.op == ".text" || st.op == ".data") {
        expect_args(st, 0, 0);
        section_ = st.op == ".text" ? kText : kData;
        st.section = section_;
        st.addr = counter_[section_];
        return;
    }
    if (st.op == ".origin" || st.op == ".org") {
        expect_args(st, 1, 1);
        int64_t to = value(st.args[0], counter);
        if (to < counter)
            throw Error{"'" + st.op + "' " + hex(to) + " moves backwards (already at " + hex(counter) + ")"};
        if (section_ == kText && to % 4 != 0)
            throw Error{"'" + st.op + "' " + hex(to) + " is not a word address"};
        if (to > kImageSize)
            throw Error{"'" + st.op + "' " + hex(to) + " is outside the " + std::to_string(kImageSize) + "-byte image"};
        counter = static_cast<uint32_t>(to);
        return;
    }
    if (st.op == ".equ") {
        expect_args(st, 2, 2);
        define(st.args[0], Symbol{st.line, false, 0, st.args[1], counter});
        return;
    }
    if (st.op == ".entry") {
        expect_args(st, 1, 1);
        if (entry_label_)
            throw Error{"second '.entry' (the first is on line " + std::to_string(entry_label_->first + 1) + ")"};
        entry_label_ = std::make_pair(st.line, st.args[0]);
        return;
    }
    if (st.op == ".word" || st.op == ".byte") {
        if (st.args.empty())
            throw Error{"'" + st.op + "' needs at least one value"};
        if (st.op == ".byte" && section_ == kText)
            throw Error{"'.byte' in .text: code is made of words"};
        st.size = static_cast<uint32_t>(st.args.size()) * (st.op == ".word" ? 4 : 1);
    } else {
        if (ops().find(st.op) == ops().end())
            throw Error{"unknown mnemonic '" + st.op + "'"};
        if (section_ == kData)
            throw Error{"instruction '" + st.op + "' in .data"};
        st.size = st.op == "ldi32" ? 8 : 4;
    }
    if (counter + st.size > kImageSize && !overflowed_[section_]) {
        overflowed_[section_] = true;
        counter += st.size;
        throw Error{std::string(section_ == kText ? "code" : "data") + " beyond the " + std::to_string(kImageSize) +
                    "-byte image"};
    }
    counter += st.size;
}

/* ---- operands ----------------------------------------------------------- */

Reg need_reg(const std::string& arg, const char* what)
{
    std::optional<Reg> r = parse_reg(arg);
    if (!r || r->amp)
        throw Error{std::string(what) + " must be a register, not '" + arg + "'"};
    return *r;
}

/* A start register of a burst: a byte address into the register file. */
uint32_t burst_start(const std::string& arg)
{
    std::optional<Reg> r = parse_reg(arg);
    if (!r)
        throw Error{"burst start must be a register, not '" + arg + "'"};
    if (r->sel >= 4 && r->sel != 7)
        throw Error{"burst start '" + arg + "' must be a whole register or a byte field (.b0..b3)"};
    uint32_t byte = r->sel == 7 ? 0 : r->sel;
    return byte << 5 | r->num;
}

/* Byte count of a burst: 1..124, or r0.b0..r0.b3 at run time (codes 124..127). */
uint32_t length_code(const std::optional<Reg>& r, const std::string& arg, int64_t v)
{
    if (r) {
        if (r->num != 0 || r->sel > 3 || r->amp)
            throw Error{"byte count register '" + arg + "' must be r0.b0..r0.b3"};
        return 124 + r->sel;
    }
    if (v < 1 || v > 124)
        throw Error{"byte count " + std::to_string(v) + " out of range 1..124"};
    return static_cast<uint32_t>(v - 1);
}

void Assembler::encode(Stmt& st)
{
    const int64_t dot = st.addr;
    if (st.op == ".word" || st.op == ".byte") {
        bool word = st.op == ".word";
        for (const std::string& a : st.args)
            st.words.push_back(static_cast<uint32_t>(
                imm(a, word ? INT32_MIN : -128, word ? UINT32_MAX : 255, word ? "word" : "byte", dot)));
        return;
    }
    auto it = ops().find(st.op);
    if (it == ops().end())
        return; /* a directive, done in the first pass */
    const OpInfo op = it->second;
    const std::vector<std::string>& a = st.args;

    /* Second ALU operand, a bit number or a quick-branch operand: a register
     * field, or an immediate in bits 23..16 with IO (bit 24) set. */
    auto src2 = [&](const std::string& arg, int64_t hi, const char* what) -> uint32_t {
        if (std::optional<Reg> r = parse_reg(arg)) {
            if (r->amp)
                throw Error{"'&' only marks a burst start register"};
            return r->field() << 16;
        }
        return 1u << 24 | static_cast<uint32_t>(imm(arg, 0, hi, what, dot)) << 16;
    };
    auto src1 = [&](const std::string& arg) { return need_reg(arg, "source").field() << 8; };
    auto dest = [&](const std::string& arg) { return need_reg(arg, "destination").field(); };
    /* JMP/JAL targets: a register field, or a byte address made a word address. */
    auto target = [&](const std::string& arg) -> uint32_t {
        if (std::optional<Reg> r = parse_reg(arg)) {
            if (r->amp)
                throw Error{"'&' only marks a burst start register"};
            return r->field() << 16;
        }
        int64_t t = imm(arg, 0, 0xFFFF * 4, "jump target", dot);
        if (t % 4 != 0)
            throw Error{"jump target " + hex(t) + " is not a word address"};
        return 1u << 24 | static_cast<uint32_t>(t / 4) << 8;
    };
    /* Quick-branch offsets: 10 bits, in words from the branch itself. */
    auto branch = [&](const std::string& arg) -> uint32_t {
        int64_t d = value(arg, dot) - dot;
        if (d % 4 != 0)
            throw Error{"branch target " + hex(d + dot) + " is not a word address"};
        d /= 4;
        if (d < -512 || d > 511)
            throw Error{"branch offset " + std::to_string(d) + " words out of range -512..511"};
        uint32_t off = static_cast<uint32_t>(d) & 0x3FF;
        return (off >> 8) << 25 | (off & 0xFF);
    };
    auto length = [&](const std::string& arg) -> uint32_t {
        std::optional<Reg> r = parse_reg(arg);
        return length_code(r, arg, r ? 0 : value(arg, dot));
    };
    auto emit = [&](uint32_t w) { st.words.push_back(w); };

    switch (op.kind) {
    case kAlu:
        expect_args(st, 3, 3);
        emit(op.bits | src2(a[2], 255, "immediate") | src1(a[1]) | dest(a[0]));
        break;
    case kBitOp: /* clr/set d, s, bit; or d, bit meaning d, d, bit */
        expect_args(st, 2, 3);
        emit(op.bits | src2(a.back(), 31, "bit number") | src1(a[a.size() - 2]) | dest(a[0]));
        break;
    case kNot:
        expect_args(st, 2, 2);
        emit(op.bits | 1u << 24 | src1(a[1]) | dest(a[0]));
        break;
    case kMov:
        expect_args(st, 2, 2);
        if (!parse_reg(a[1]))
            throw Error{"'mov' takes a register source; load a constant with 'ldi' or 'ldi32'"};
        emit(op.bits | 1u << 24 | src1(a[1]) | dest(a[0]));
        break;
    case kNop:
    case kHalt_:
        expect_args(st, 0, 0);
        emit(op.bits);
        break;
    case kLmbd:
        expect_args(st, 3, 3);
        emit(op.bits | src2(a[2], 255, "immediate") | src1(a[1]) | dest(a[0]));
        break;
    case kJmp:
        expect_args(st, 1, 1);
        emit(op.bits | target(a[0]));
        break;
    case kJal:
        expect_args(st, 2, 2);
        emit(op.bits | target(a[1]) | dest(a[0]));
        break;
    case kCall: /* jal r3.w2, target */
        expect_args(st, 1, 1);
        emit(op.bits | target(a[0]) | Reg{3, 6, false}.field());
        break;
    case kRet: /* jmp r3.w2 */
        expect_args(st, 0, 0);
        emit(op.bits | Reg{3, 6, false}.field() << 16);
        break;
    case kLdi:
        expect_args(st, 2, 2);
        emit(op.bits | static_cast<uint32_t>(imm(a[1], 0, 0xFFFF, "immediate", dot)) << 8 | dest(a[0]));
        break;
    case kLdi32: { /* ldi rN.w2, high; ldi rN.w0, low */
        expect_args(st, 2, 2);
        Reg d = need_reg(a[0], "destination");
        if (d.sel != 7)
            throw Error{"'ldi32' needs a whole register, not '" + a[0] + "'"};
        uint32_t v = static_cast<uint32_t>(imm(a[1], INT32_MIN, UINT32_MAX, "immediate", dot));
        emit(op.bits | (v >> 16) << 8 | Reg{d.num, 6, false}.field());
        emit(op.bits | (v & 0xFFFF) << 8 | Reg{d.num, 4, false}.field());
        break;
    }
    case kSlp:
        expect_args(st, 1, 1);
        emit(op.bits | static_cast<uint32_t>(imm(a[0], 0, 1, "wake-up flag", dot)) << 23);
        break;
    case kXfr:
        expect_args(st, 3, 3);
        emit(op.bits | static_cast<uint32_t>(imm(a[0], 0, 255, "device id", dot)) << 15 | length(a[2]) << 7 |
             burst_start(a[1]));
        break;
    case kZero:
        expect_args(st, 2, 2);
        emit(op.bits | length(a[1]) << 7 | burst_start(a[0]));
        break;
    case kLoop: {
        expect_args(st, 2, 2);
        int64_t d = value(a[0], dot) - dot;
        if (d % 4 != 0)
            throw Error{"loop end " + hex(d + dot) + " is not a word address"};
        d /= 4;
        if (d < 2)
            throw Error{"loop end " + std::to_string(d) + " words after the loop: the body needs an instruction"};
        if (d > 255)
            throw Error{"loop end " + std::to_string(d) + " words after the loop, at most 255"};
        /* a register count, or an immediate 1..256 stored as count - 1 */
        uint32_t count = parse_reg(a[1])
                             ? src2(a[1], 0, "")
                             : 1u << 24 | static_cast<uint32_t>(imm(a[1], 1, 256, "loop count", dot) - 1) << 16;
        emit(op.bits | count | static_cast<uint32_t>(d));
        break;
    }
    case kQb:
        expect_args(st, 3, 3);
        emit(op.bits | branch(a[0]) | src2(a[2], 255, "immediate") | src1(a[1]));
        break;
    case kQba:
        expect_args(st, 1, 1);
        emit(op.bits | branch(a[0]));
        break;
    case kQbb:
        expect_args(st, 3, 3);
        emit(op.bits | branch(a[0]) | src2(a[2], 31, "bit number") | src1(a[1]));
        break;
    case kWb: /* a bit branch to itself */
        expect_args(st, 2, 2);
        emit(op.bits | src2(a[1], 31, "bit number") | src1(a[0]));
        break;
    case kMem: {
        expect_args(st, 4, 4);
        uint32_t base;
        if (op.bits & 0x40000000) { /* xBBO: base register */
            Reg b = need_reg(a[1], "base");
            if (b.sel != 7)
                throw Error{"base register '" + a[1] + "' must be a whole register"};
            base = b.num;
        } else { /* xBCO: constant table entry, cN or a number */
            std::string c = lower(trim(a[1]));
            bool named = c.size() >= 2 && c[0] == 'c' && all_digits(c.substr(1));
            base = static_cast<uint32_t>(imm(named ? c.substr(1) : a[1], 0, 31, "constant table entry", dot));
        }
        uint32_t len = length(a[3]);
        emit(op.bits | (len >> 4) << 25 | src2(a[2], 255, "offset") | ((len >> 1) & 7) << 13 | base << 8 |
             (len & 1) << 7 | burst_start(a[0]));
        break;
    }
    }
}

void Assembler::check_entry()
{
    if (!entry_label_) {
        if (want_entry_)
            error(lines_.empty() ? 0 : lines_.size() - 1,
                  "no '.entry' label; the core is started at " + hex(*want_entry_));
        return;
    }
    auto [line, name] = *entry_label_;
    auto it = symbols_.find(name);
    if (it == symbols_.end() || !it->second.label) {
        error(line, "'.entry' names '" + name + "', which is not a label");
        return;
    }
    int64_t at = it->second.value;
    if (at >= kImageSize)
        error(line, "entry point '" + name + "' at " + hex(at) + " is outside the image");
    else if (want_entry_ && at != *want_entry_)
        error(line, "entry point '" + name + "' is at " + hex(at) + ", the core is started at " + hex(*want_entry_));
    else
        out_.entry = static_cast<uint32_t>(at);
}

void Assembler::write_images()
{
    out_.text.assign(kImageSize, 0);
    out_.data.assign(kImageSize, 0);
    for (uint32_t a = 0; a < kImageSize; a += 4)
        for (int b = 0; b < 4; ++b)
            out_.text[a + static_cast<uint32_t>(b)] = static_cast<uint8_t>(kHalt >> (8 * b));
    for (const Stmt& st : stmts_) {
        std::vector<uint8_t>& img = st.section == kText ? out_.text : out_.data;
        uint32_t width = st.op == ".byte" ? 1 : 4;
        uint32_t addr = st.addr;
        for (uint32_t w : st.words) {
            for (uint32_t b = 0; b < width && addr < kImageSize; ++b, ++addr)
                img[addr] = static_cast<uint8_t>(w >> (8 * b));
        }
    }
}

void Assembler::write_listing()
{
    std::string& l = out_.listing;
    l = "; " + file_ + (out_.entry ? ", entry " + hex(*out_.entry) : "") + "\n";
    l += "; line  sec addr  word      source\n";
    char buf[64];
    size_t next = 0;
    for (size_t i = 0; i < lines_.size(); ++i) {
        const Stmt* st = next < stmts_.size() && stmts_[next].line == i ? &stmts_[next++] : nullptr;
        if (!st || st->words.empty()) {
            std::snprintf(buf, sizeof buf, "%6zu                    ", i + 1);
            l += buf + lines_[i] + "\n";
            continue;
        }
        uint32_t width = st->op == ".byte" ? 1 : 4;
        for (size_t k = 0; k < st->words.size(); ++k) {
            std::snprintf(buf, sizeof buf, width == 1 ? "%6zu  %c %04x  %02x        " : "%6zu  %c %04x  %08x  ",
                          i + 1, st->section == kText ? 't' : 'd', st->addr + static_cast<uint32_t>(k) * width,
                          st->words[k]);
            l += buf + (k == 0 ? lines_[i] : std::string()) + "\n";
        }
    }
}

Output Assembler::run(std::string_view source)
{
    for (size_t start = 0; start < source.size();) {
        size_t end = std::min(source.find('\n', start), source.size());
        std::string_view ln = source.substr(start, end - start);
        if (!ln.empty() && ln.back() == '\r')
            ln.remove_suffix(1);
        lines_.emplace_back(ln);
        start = end + 1;
    }
    for (size_t i = 0; i < lines_.size(); ++i) {
        try {
            first_pass(i, lines_[i]);
        } catch (const Error& e) {
            error(i, e.msg);
        }
    }
    for (Stmt& st : stmts_) {
        try {
            encode(st);
        } catch (const Error& e) {
            st.words.clear();
            error(st.line, e.msg);
        }
    }
    check_entry();
    write_images();
    write_listing();
    std::stable_sort(errors_.begin(), errors_.end(),
                     [](const auto& x, const auto& y) { return x.first < y.first; });
    for (auto& e : errors_)
        out_.errors.push_back(std::move(e.second));
    return std::move(out_);
}

} // namespace

Output assemble(std::string_view source, std::string_view filename, std::optional<uint32_t> entry)
{
    return Assembler(filename, entry).run(source);
}

uint32_t word_at(const std::vector<uint8_t>& image, uint32_t addr)
{
    uint32_t w = 0;
    for (uint32_t b = 0; b < 4 && addr + b < image.size(); ++b)
        w |= static_cast<uint32_t>(image[addr + b]) << (8 * b);
    return w;
}

} // namespace pruasm
