/* The PRU assembler: every instruction form to its exact word, the layout
 * of a program (labels, origin, sections, entry) and the errors it reports. */
#include <gtest/gtest.h>

#include <string>

#include "pruasm.h"

namespace {

using pruasm::word_at;

/* Word 0 of the code image of a snippet that must assemble. */
uint32_t first_word(const std::string& src)
{
    pruasm::Output out = pruasm::assemble(src, "t.asm");
    EXPECT_TRUE(out.ok()) << src << "\n" << (out.ok() ? "" : out.errors[0]);
    return word_at(out.text, 0);
}

struct Vector {
    const char* src;
    uint32_t word;
};

/* Encodings from the field tables of the PRU reference and the GNU
 * assembler's test suite; loops carry their end label 2, 5 or 3 words on. */
const Vector kVectors[] = {
        {"add r4, r4, r4", 0x00E4E4E4},
        {"add r4, r4, 255", 0x01FFE4E4},
        {"add r4.b1, r4.w1, 0", 0x0100A424},
        {"add r1.b1, r2.b2, r3.b3", 0x00634221},
        {"adc r1.b1, r2.b2, r3.b3", 0x02634221},
        {"adc r1.b1, r2.b2, 99", 0x03634221},
        {"sub r1, r31, 10", 0x050AFFE1},
        {"suc r1, r31, 10", 0x070AFFE1},
        {"lsl r31, r31, 10", 0x090AFFFF},
        {"lsr r31, r31, 10", 0x0B0AFFFF},
        {"rsb r16, r16.b3, 10", 0x0D0A70F0},
        {"rsc r16, r16.b3, 10", 0x0F0A70F0},
        {"and r1.w1, r1.b3, 170", 0x11AA61A1},
        {"or r1.w1, r1.b3, 170", 0x13AA61A1},
        {"xor r1.w1, r1.b3, 170", 0x15AA61A1},
        {"not r2, r1", 0x1700E1E2},
        {"min r1, r1, r2", 0x18E2E1E1},
        {"max r1, r2, r3.w2", 0x1AC3E2E1},
        {"clr r1, r2, r3.w2", 0x1CC3E2E1},
        {"set r1, r2, 12", 0x1F0CE2E1},
        {"mov r1, r2", 0x1300E2E1},
        {"nop", 0x12E0E0E0},
        {"clr r0, r0, 4", 0x1D04E0E0},
        {"jmp r10", 0x20EA0000},
        {"jmp r10.w0", 0x208A0000},
        {"jmp 0x100", 0x21004000},
        {"jal r22, r10.w2", 0x22CA00F6},
        {"jal r23, 0", 0x230000F7},
        {"jal r23.w1, 0x3fffc", 0x23FFFFB7},
        {"call 0x400", 0x230100C3},
        {"call r10", 0x22EA00C3},
        {"ret", 0x20C30000},
        {"ldi r16, 0", 0x240000F0},
        {"ldi r16, 65535", 0x24FFFFF0},
        {"ldi r16, 511", 0x2401FFF0},
        {"ldi r16, 4660", 0x241234F0},
        {"ldi32 r16, 0x12345678", 0x241234D0},
        {"ldi r16.w0, 0x5678", 0x24567890},
        {"ldi r31, 35", 0x240023FF},
        {"ldi r31.b0, 35", 0x2400231F},
        {"lmbd r0, r1, 1", 0x2701E1E0},
        {"lmbd r0.b0, r1, 0", 0x2700E100},
        {"lmbd r0, r1, r2.b2", 0x2642E1E0},
        {"halt", 0x2A000000},
        {"slp 1", 0x3E800000},
        {"slp 0", 0x3E000000},
        {"loop L, r10.b2\n.org 8\nL:", 0x304A0002},
        {"iloop L, r11\n.org 8\nL:", 0x30EB8002},
        {"loop L, 5\n.org 20\nL:", 0x31040005},
        {"loop L, r0.b0\n.org 12\nL:", 0x30000003},
        {"zero r2.b0, 1", 0x2EFF8002},
        {"zero r23.b2, 4", 0x2EFF81D7},
        {"zero r0.b0, 124", 0x2EFFBD80},
        {"fill r2.b0, 1", 0x2EFF0002},
        {"fill r23.b1, 4", 0x2EFF01B7},
        {"xin 0, r10.b0, 1", 0x2E80000A},
        {"xin 253, r10.b2, 124", 0x2EFEBDCA},
        {"xout 85, r12.b0, 85", 0x2F2AAA0C},
        {"xchg 0, r10.b1, 124", 0x2F803DAA},
        {"sxin 0, r10.b0, 1", 0x2E80400A},
        {"xout 10, r4, 16", 0x2F050784},
        {"xin 0, r26, 8", 0x2E80039A},
        {"qbgt .+0, r23, 0", 0x6100F700},
        {"qbge .+0, r23.b2, 255", 0x71FF5700},
        {"qblt .+0, r22.w1, r0.b1", 0x4820B600},
        {"qble .+0, r0.b0, r1.b1", 0x58210000},
        {"qbeq .+0, r1.b2, r3.b0", 0x50034100},
        {"qbne .+0, r21, r22", 0x68F6F500},
        {"qba .+0", 0x78000000},
        {"qba .+8", 0x78000002},
        {"qba .-4", 0x7E0000FF},
        {"qbne .-8, r1, 0", 0x6F00E1FE},
        {"qbeq .+2044, r1, r2", 0x52E2E1FF},
        {"qbeq .-2048, r1, r2", 0x54E2E100},
        {"wbc r12, r13", 0xD0EDEC00},
        {"wbc r12, 5", 0xD105EC00},
        {"wbs r12, r13", 0xC8EDEC00},
        {"wbs r12, 5", 0xC905EC00},
        {"wbc r12.w1, 12", 0xD10CAC00},
        {"wbs r12, r1", 0xC8E1EC00},
        {"wbs r31, 30", 0xC91EFF00},
        {"qbbs .+12, r31, 31", 0xD11FFF03},
        {"lbbo r0.b1, r30, r1.b3, 1", 0xF0611E20},
        {"lbbo r0.b2, r30, r1.b2, 124", 0xFE41BEC0},
        {"lbbo r0.b3, r30, 255, 1", 0xF1FF1E60},
        {"lbbo r0, r30, 1, 2", 0xF1011E80},
        {"lbbo r0, r30, 0, 85", 0xFB005E00},
        {"lbbo r18, r25, r1.w1, r0.b0", 0xFEA1D912},
        {"lbbo r18, r25, 101, r0.b1", 0xFF65D992},
        {"lbbo r18, r25, r1, r0.b3", 0xFEE1F992},
        {"sbbo r0.b1, r30, r1.b3, 1", 0xE0611E20},
        {"sbbo r0, r30, 0, 85", 0xEB005E00},
        {"sbbo r18, r25, r1, r0.b0", 0xEEE1D912},
        {"lbco r10, 0, 5, 8", 0x9105608A},
        {"lbco r10, 1, r11.w1, 8", 0x90AB618A},
        {"lbco r10, 31, 5, 8", 0x91057F8A},
        {"sbco r10, 0, 5, 8", 0x8105608A},
        {"sbco r10, 1, r11.w1, 8", 0x80AB618A},
        {"lbco r0, 4, 4, 4", 0x91042480},
        {"sbco r0, 4, 4, 4", 0x81042480},
        {"sbco r0, 0, 0x24, 4", 0x81242080},
        {"sbbo r2, r1, 0, 8", 0xE1006182},
        /* the other spellings the sources may use */
        {"LBCO R10, C0, 5, 8", 0x9105608A},
        {"zero &r2, 1", 0x2EFF8002},
        {"clr r0, 4", 0x1D04E0E0},
        {"add sp, ra, fp", 0x00E4E3E2},
        {"ldi r1, (1 << 4 | 0b11) * 2 - ~0 % 7", 0x240027E1},
};

TEST(Pruasm, EncodesEveryInstructionForm)
{
    for (const Vector& v : kVectors)
        EXPECT_EQ(v.word, first_word(v.src)) << v.src;
}

TEST(Pruasm, LaysOutAProgram)
{
    const char* src = R"(; a program in both sections
        .equ    COUNT, LIMIT / 2     ; defined later, evaluated on use
        .equ    LIMIT, 8
        .data
        .word   0x11223344, end - HERE
        .byte   -1, COUNT
table:  .word   table
        .text
        .origin 0x100
        .equ    HERE, .
        .entry  start
start:  qba     skip                 /* forward */
back:   loop    end, COUNT
        add     r1, r1, 1
end:    qbne    back, r1, LIMIT      // backward
skip:   jmp     start
        call    back
)";
    pruasm::Output out = pruasm::assemble(src, "t.asm", 0x100);
    ASSERT_TRUE(out.ok()) << out.errors[0];
    EXPECT_EQ(0x100u, out.entry);
    const uint32_t code[] = {0x78000004, 0x31030002, 0x0101E1E1, 0x6F08E1FE, 0x21004000, 0x230041C3};
    for (uint32_t i = 0; i < 6; ++i)
        EXPECT_EQ(code[i], word_at(out.text, 0x100 + 4 * i)) << i;
    /* Every word not assembled, before and after, stops the core. */
    EXPECT_EQ(pruasm::kHalt, word_at(out.text, 0));
    EXPECT_EQ(pruasm::kHalt, word_at(out.text, 0xFC));
    EXPECT_EQ(pruasm::kHalt, word_at(out.text, pruasm::kImageSize - 4));
    ASSERT_EQ(pruasm::kImageSize, out.data.size());
    EXPECT_EQ(0x11223344u, word_at(out.data, 0));
    EXPECT_EQ(0xCu, word_at(out.data, 4));
    EXPECT_EQ(0x04FFu, word_at(out.data, 8) & 0xFFFF);
    EXPECT_EQ(10u, word_at(out.data, 10));
    EXPECT_EQ(0u, word_at(out.data, 14));
    /* The listing shows where each line went. */
    EXPECT_NE(std::string::npos, out.listing.find("t 0104  31030002  back:   loop    end, COUNT"));
    EXPECT_NE(std::string::npos, out.listing.find("d 0008  ff"));
}

TEST(Pruasm, ReportsEveryErrorWithItsLine)
{
    const struct {
        const char* src;
        const char* error; /* the first error */
    } cases[] = {
        {"nop\nfrob r1, r2", "t.asm:2: unknown mnemonic 'frob'"},
        {"add r1, r2, 256", "t.asm:1: immediate 256 out of range 0..255"},
        {"ldi r1, 0x10000", "t.asm:1: immediate 65536 out of range 0..65535"},
        {"ldi r1, nowhere", "t.asm:1: undefined symbol 'nowhere'"},
        {"add r32, r1, r1", "t.asm:1: no register 'r32'"},
        {"add r1.w3, r1, r1", "t.asm:1: bad field selector"},
        {"qba .+2048", "t.asm:1: branch offset 512 words out of range -512..511"},
        {"qba .-2052", "t.asm:1: branch offset -513 words out of range"},
        {"qba .+2", "t.asm:1: branch target 0x2 is not a word address"},
        {"jmp 6", "t.asm:1: jump target 0x6 is not a word address"},
        {"jmp 0x40000", "t.asm:1: jump target 262144 out of range 0..262140"},
        {"ldi r1, 0b102", "t.asm:1: bad number '0b102'"},
        {"loop e, 4\ne:", "t.asm:1: loop end 1 words after the loop"},
        {"loop e, 4\n.org 1024\ne:", "t.asm:1: loop end 256 words after the loop, at most 255"},
        {"loop e, 257\nnop\ne:", "t.asm:1: loop count 257 out of range 1..256"},
        {"mov r1, 5", "t.asm:1: 'mov' takes a register source; load a constant with 'ldi'"},
        {"ldi32 r1.w0, 5", "t.asm:1: 'ldi32' needs a whole register"},
        {"lbbo r1, r2.w0, 0, 4", "t.asm:1: base register 'r2.w0' must be a whole register"},
        {"lbbo r1, r2, 0, 125", "t.asm:1: byte count 125 out of range 1..124"},
        {"lbbo r1, r2, 0, r1.b0", "t.asm:1: byte count register 'r1.b0' must be r0.b0..r0.b3"},
        {"lbco r1, c32, 0, 4", "t.asm:1: constant table entry 32 out of range 0..31"},
        {"xin 0, r1.w1, 4", "t.asm:1: burst start 'r1.w1' must be a whole register or a byte field"},
        {"wbs r31, 32", "t.asm:1: bit number 32 out of range 0..31"},
        {"add r1, r1", "t.asm:1: 'add' takes 3 operands, not 2"},
        {"x: nop\nx: nop", "t.asm:2: symbol 'x' already defined on line 1"},
        {"r5: nop", "t.asm:1: 'r5' is a register name"},
        {".equ 5a, 3", "t.asm:1: '5a' is not a symbol name"},
        {".equ a, b\n.equ b, a\nldi r1, a", "t.asm:3: symbol 'a' is defined in terms of itself"},
        {".org 8\n.org 4", "t.asm:2: '.org' 0x4 moves backwards"},
        {".org 8188\nnop\nnop", "t.asm:3: code beyond the 8192-byte image"},
        {".data\n.org 8191\n.word 1", "t.asm:3: data beyond the 8192-byte image"},
        {".data\nnop", "t.asm:2: instruction 'nop' in .data"},
        {"nop /* open", "t.asm:1: '/*' comment not closed"},
        {".entry start\nnop", "t.asm:1: '.entry' names 'start', which is not a label"},
        {".org 0x720\n.entry s\ns: halt", "t.asm:2: entry point 's' is at 0x720, the core is started at 0x724"},
        {"nop\nhalt", "t.asm:2: no '.entry' label; the core is started at 0x724"},
        {".org 8192\n.entry s\ns:", "t.asm:2: entry point 's' at 0x2000 is outside the image"},
    };
    for (const auto& c : cases) {
        pruasm::Output out = pruasm::assemble(c.src, "t.asm", 0x724);
        ASSERT_FALSE(out.ok()) << c.src;
        EXPECT_EQ(0u, out.errors[0].find(c.error)) << c.src << "\ngot: " << out.errors[0];
    }

    /* One run names every faulty line, in order. */
    pruasm::Output out = pruasm::assemble("add r1, r1, 300\nnop\nfrob\nqba nowhere\n", "f.asm");
    ASSERT_EQ(3u, out.errors.size());
    EXPECT_EQ(0u, out.errors[0].find("f.asm:1:"));
    EXPECT_EQ(0u, out.errors[1].find("f.asm:3:"));
    EXPECT_EQ(0u, out.errors[2].find("f.asm:4:"));
}

} // namespace
