// SPDX-License-Identifier: GPL-2.0
/*
 * Watches the chip of the kernel's NAND simulator: logs each change, each program over unerased bits and each read
 * that the ECC did not find clean, and loses power in the middle of a change.
 *
 * /proc/flashlog gives the log and forgets what was read. A line is a letter and the number of a page or block:
 *   P page      programmed
 *   E block     erased
 *   U page      programmed over unerased bits
 *   R page      read without valid ECC
 *   C page      power was lost while this page, or the block that begins with this page, was changed
 *   O 0         lines are missing: the log was full
 *
 * Commands are written to the parameter "control":
 *   add OFFSET SIZE NAME    makes an MTD device of a part of the chip; numbers in decimal
 *   remove NUMBER           removes an MTD device
 *   scan                    makes the kernel's table of bad blocks anew, from the markers on the chip
 *   begin                   empties the log and counts changes from 0
 *   power                   turns power on again after a cut
 *
 * Without power each request fails and its process is killed, so nothing reaches the chip.
 */
#include <linux/module.h>
#include <linux/mtd/mtd.h>
#include <linux/mtd/partitions.h>
#include <linux/proc_fs.h>
#include <linux/sched/signal.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/uaccess.h>
#include <linux/vmalloc.h>

#include "raw_page.inc"

#define LOG_LINES (1 << 21)
#define SMALL_PAGE 512
#define NUMBER_BITS 24

/* How far the change gets that the power cut ends. */
enum extent { NOTHING, HALF, ALL_BUT_LAST, WITHOUT_OOB, ALL };

static ulong cut;
module_param(cut, ulong, 0644);
MODULE_PARM_DESC(cut, "number of the change, from 1, during which power is lost; 0: never");

static int extent = HALF;
module_param(extent, int, 0644);
MODULE_PARM_DESC(extent, "how far that change gets: 0 none, 1 half, 2 most, 3 bare, 4 done");

static ulong changes;
module_param(changes, ulong, 0444);
MODULE_PARM_DESC(changes, "changes so far");

static struct mtd_info *master;
static struct nand_chip *chip;
static const struct nand_controller_ops *simulator;
static struct nand_controller_ops watched;
static int (*read_page)(struct nand_chip *chip, u8 *data, int oob_required, int page);
static int (*read_subpage)(struct nand_chip *chip, u32 offset, u32 length, u8 *data, int page);

static DEFINE_SPINLOCK(log_lock);
static u32 *log_lines;
static u32 log_begin, log_end; /* count lines, and wrap with the buffer */
static bool log_is_full;

static bool is_own;      /* the requests to the chip are this module's */
static bool power_is_off;
static u8 *page_before;  /* raw cells of the page that is being programmed */
static u8 *block_before; /* raw cells of the block that the cut change is about; NULL for other changes */
static u32 page;         /* that is being programmed */
static u32 column;       /* of the next data byte */
static u32 pointer;      /* column at which a small page's addresses begin */
static bool has_lost;    /* a bit stayed 0 that should have become 1 */

static u32 raw_page_size(void)
{
	return master->writesize + master->oobsize;
}

static u32 block_pages(void)
{
	return master->erasesize / master->writesize;
}

static void add_line(char kind, u32 number)
{
	spin_lock(&log_lock);
	if (log_end - log_begin == LOG_LINES)
		log_is_full = true;
	else
		log_lines[log_end++ % LOG_LINES] = (u32)kind << NUMBER_BITS | number;
	spin_unlock(&log_lock);
}

static bool take_line(u32 *line)
{
	bool is_there;

	spin_lock(&log_lock);
	is_there = log_begin != log_end || log_is_full;
	if (log_begin != log_end)
		*line = log_lines[log_begin++ % LOG_LINES];
	else
		*line = (u32)'O' << NUMBER_BITS;
	if (log_begin == log_end && is_there && *line >> NUMBER_BITS == 'O')
		log_is_full = false;
	spin_unlock(&log_lock);
	return is_there;
}

static ssize_t read_log(struct file *file, char __user *to, size_t size, loff_t *offset)
{
	char text[16];
	size_t done = 0;
	u32 line;

	while (done + sizeof(text) <= size && take_line(&line)) {
		int length = scnprintf(text, sizeof(text), "%c %u\n", line >> NUMBER_BITS,
				       line & ((1 << NUMBER_BITS) - 1));

		if (copy_to_user(to + done, text, length))
			return -EFAULT;
		done += length;
	}
	return done;
}

static const struct proc_ops log_ops = { .proc_read = read_log };

static int read_block(u32 first, u8 *cells)
{
	u32 i;
	int error = 0;

	for (i = 0; i < block_pages() && !error; i++)
		error = nand_read_page_op(chip, first + i, 0, cells + i * raw_page_size(), raw_page_size());
	return error;
}

/* Puts into `after`, the cells of a block after a whole change, those of before that a torn change had not reached. */
static void tear(u8 *after, const u8 *before, bool is_erase, u32 changed)
{
	u32 raw = raw_page_size(), data = master->writesize, oob = master->oobsize;
	u32 kept, all;

	if (is_erase) {
		all = block_pages();
		kept = extent == NOTHING ? 0 : extent == HALF ? all / 2 : extent == ALL_BUT_LAST ? all - 1 : all;
		memcpy(after + kept * raw, before + kept * raw, (all - kept) * raw);
		return;
	}
	if (extent == ALL)
		return;
	after += changed * raw;
	before += changed * raw;
	if (memcmp(after, before, data)) {
		kept = extent == NOTHING ? 0 : extent == HALF ? data / 2 : extent == ALL_BUT_LAST ? data - 16 : data;
		memcpy(after + kept, before + kept, raw - kept);
	} else {
		kept = extent == HALF ? oob / 2 : extent == ALL_BUT_LAST ? oob - 1 : 0;
		memcpy(after + data + kept, before + data + kept, oob - kept);
	}
}

/* Leaves the block as a torn change does, and turns power off. */
static void lose_power(u32 first, bool is_erase, u32 changed)
{
	u32 raw = raw_page_size(), i;
	u8 *after = vmalloc(block_pages() * raw);

	is_own = true;
	if (after && !read_block(first, after)) {
		tear(after, block_before, is_erase, changed);
		nand_erase_op(chip, first / block_pages());
		for (i = 0; i < block_pages(); i++) {
			if (memchr_inv(after + i * raw, 0xFF, raw))
				nand_prog_page_op(chip, first + i, 0, after + i * raw, raw);
		}
	}
	is_own = false;
	vfree(after);
	vfree(block_before);
	block_before = NULL;
	power_is_off = true;
	add_line('C', first + changed);
}

static int refuse(void)
{
	if (!(current->flags & PF_KTHREAD))
		send_sig(SIGKILL, current, 1);
	return -EIO;
}

/* Before a change: takes what the change will be compared with. */
static void prepare(u32 first)
{
	is_own = true;
	if (cut && changes + 1 == cut) {
		block_before = vmalloc(block_pages() * raw_page_size());
		if (block_before && read_block(first, block_before)) {
			vfree(block_before);
			block_before = NULL;
		}
	}
	is_own = false;
}

static u32 row_of(const struct nand_op_addr_instr *address, u32 columns)
{
	u32 row = 0, i;

	for (i = columns; i < address->naddrs; i++)
		row |= (u32)address->addrs[i] << 8 * (i - columns);
	return row;
}

static u32 column_cycles(void)
{
	return master->writesize > SMALL_PAGE ? 2 : 1;
}

static void begin_program(const struct nand_op_addr_instr *address)
{
	page = row_of(address, column_cycles());
	column = address->addrs[0] | (column_cycles() == 2 ? (u32)address->addrs[1] << 8 : 0);
	column += pointer;
	has_lost = false;
	is_own = true;
	if (nand_read_page_op(chip, page, 0, page_before, raw_page_size()))
		memset(page_before, 0xFF, raw_page_size());
	is_own = false;
	prepare(page - page % block_pages());
}

/*
 * The kernel fills up parts of pages with 0xFF, which changes no cell. A program of nothing but 0xFF is counted as
 * lost only when it is a whole page.
 */
static void compare(const u8 *data, u32 length)
{
	u32 i;

	if (column == 0 && length >= master->writesize && !memchr_inv(data, 0xFF, length) &&
	    memchr_inv(page_before, 0xFF, master->writesize))
		has_lost = true;
	for (i = 0; i < length && column < raw_page_size(); i++, column++) {
		if (data[i] != 0xFF && (data[i] & ~page_before[column]))
			has_lost = true;
	}
}

static int watch(struct nand_chip *nand, const struct nand_operation *op, bool check_only)
{
	u32 i, erased = 0, result;
	bool programs = false, erases = false;
	u8 command = 0;

	if (check_only || is_own)
		return simulator->exec_op(nand, op, check_only);
	if (power_is_off)
		return refuse();
	for (i = 0; i < op->ninstrs; i++) {
		const struct nand_op_instr *instr = &op->instrs[i];

		switch (instr->type) {
		case NAND_OP_CMD_INSTR:
			command = instr->ctx.cmd.opcode;
			if (master->writesize <= SMALL_PAGE && command == NAND_CMD_READ0)
				pointer = 0;
			if (master->writesize <= SMALL_PAGE && command == NAND_CMD_READ1)
				pointer = SMALL_PAGE / 2;
			if (master->writesize <= SMALL_PAGE && command == NAND_CMD_READOOB)
				pointer = SMALL_PAGE;
			programs |= command == NAND_CMD_PAGEPROG;
			erases |= command == NAND_CMD_ERASE2;
			break;
		case NAND_OP_ADDR_INSTR:
			if (command == NAND_CMD_SEQIN) {
				begin_program(&instr->ctx.addr);
			} else if (command == NAND_CMD_ERASE1) {
				erased = row_of(&instr->ctx.addr, 0);
				prepare(erased);
			} else if (command == NAND_CMD_RNDIN) {
				column = instr->ctx.addr.addrs[0] | (u32)instr->ctx.addr.addrs[1] << 8;
			}
			break;
		case NAND_OP_DATA_OUT_INSTR:
			compare(instr->ctx.data.buf.out, instr->ctx.data.len);
			break;
		default:
			break;
		}
	}
	result = simulator->exec_op(nand, op, false);
	if (!programs && !erases)
		return result;
	changes++;
	if (erases)
		add_line('E', erased / block_pages());
	else
		add_line('P', page);
	if (programs && has_lost)
		add_line('U', page);
	if (!block_before)
		return result;
	lose_power(erases ? erased : page - page % block_pages(), erases, erases ? 0 : page % block_pages());
	return refuse();
}

static void note_ecc(const struct mtd_ecc_stats *before, int read)
{
	const struct mtd_ecc_stats *now = &master->ecc_stats;

	if (now->corrected != before->corrected || now->failed != before->failed)
		add_line('R', read);
}

static int watch_read_page(struct nand_chip *nand, u8 *data, int oob_required, int read)
{
	struct mtd_ecc_stats before = master->ecc_stats;
	int result = read_page(nand, data, oob_required, read);

	note_ecc(&before, read);
	return result;
}

static int watch_read_subpage(struct nand_chip *nand, u32 offset, u32 length, u8 *data, int read)
{
	struct mtd_ecc_stats before = master->ecc_stats;
	int result = read_subpage(nand, offset, length, data, read);

	note_ecc(&before, read);
	return result;
}

static void begin(void)
{
	spin_lock(&log_lock);
	log_begin = log_end = 0;
	log_is_full = false;
	spin_unlock(&log_lock);
	changes = 0;
}

static int scan(void)
{
	u8 *old = chip->bbt;
	int error;

	master->ecc_stats.badblocks = 0;
	error = nand_create_bbt(chip);
	if (!error)
		kfree(old);
	return error;
}

static int control(const char *text, const struct kernel_param *parameter)
{
	char name[64] = "";
	u64 offset, size;
	int number;

	if (sscanf(text, "add %llu %llu %63[^\n]", &offset, &size, name) == 3)
		return mtd_add_partition(master, name, offset, size);
	if (sscanf(text, "remove %d", &number) == 1)
		return mtd_del_partition(master, number);
	if (sysfs_streq(text, "scan"))
		return scan();
	if (sysfs_streq(text, "begin")) {
		begin();
		return 0;
	}
	if (sysfs_streq(text, "power")) {
		power_is_off = false;
		return 0;
	}
	return -EINVAL;
}

static const struct kernel_param_ops control_ops = { .set = control };
module_param_cb(control, &control_ops, NULL, 0200);
MODULE_PARM_DESC(control, "commands: add, remove, scan, begin, power");

static int __init flashlog_init(void)
{
	struct mtd_info *device = get_mtd_device_nm("NAND simulator partition 0");

	if (IS_ERR(device))
		return PTR_ERR(device);
	master = mtd_get_master(device);
	chip = mtd_to_nand(master);
	/* The device is to be removed; who unloads nandsim unloads this module first. */
	put_mtd_device(device);

	log_lines = vmalloc(sizeof(*log_lines) * LOG_LINES);
	page_before = kmalloc(raw_page_size(), GFP_KERNEL);
	if (!log_lines || !page_before || !proc_create("flashlog", 0400, NULL, &log_ops)) {
		vfree(log_lines);
		kfree(page_before);
		return -ENOMEM;
	}
	simulator = chip->controller->ops;
	watched = *simulator;
	watched.exec_op = watch;
	chip->controller->ops = &watched;
	read_page = chip->ecc.read_page;
	chip->ecc.read_page = watch_read_page;
	read_subpage = chip->ecc.read_subpage;
	if (read_subpage)
		chip->ecc.read_subpage = watch_read_subpage;
	chip->ecc.write_page_raw = write_page_raw;
	return 0;
}

static void __exit flashlog_exit(void)
{
	chip->controller->ops = simulator;
	chip->ecc.read_page = read_page;
	chip->ecc.read_subpage = read_subpage;
	chip->ecc.write_page_raw = nand_write_page_raw;
	remove_proc_entry("flashlog", NULL);
	vfree(log_lines);
	kfree(page_before);
}

module_init(flashlog_init);
module_exit(flashlog_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Log and power cuts of nandsim's chip");
