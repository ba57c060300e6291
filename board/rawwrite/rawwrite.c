// SPDX-License-Identifier: GPL-2.0
/*
 * Lets the kernel's NAND simulator take a raw page without OOB bytes, as real chips do.
 *
 * The simulator counts the bytes of a page program and refuses fewer than data and OOB area together. The OOB
 * bytes added here are all 0xFF: programming only clears bits, so no cell changes.
 */
#include <linux/module.h>
#include <linux/mtd/mtd.h>
#include <linux/mtd/rawnand.h>

static struct mtd_info *device;

static int write_page_raw(struct nand_chip *chip, const u8 *data, int oob_required, int page)
{
	if (!oob_required)
		memset(chip->oob_poi, 0xFF, nand_to_mtd(chip)->oobsize);
	return nand_write_page_raw(chip, data, 1, page);
}

static struct nand_chip *chip(void)
{
	return mtd_to_nand(mtd_get_master(device));
}

static int __init rawwrite_init(void)
{
	device = get_mtd_device_nm("NAND simulator partition 0");
	if (IS_ERR(device))
		return PTR_ERR(device);
	chip()->ecc.write_page_raw = write_page_raw;
	return 0;
}

static void __exit rawwrite_exit(void)
{
	chip()->ecc.write_page_raw = nand_write_page_raw;
	put_mtd_device(device);
}

module_init(rawwrite_init);
module_exit(rawwrite_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Raw page programs without OOB bytes on nandsim");
