// SPDX-License-Identifier: GPL-2.0
/* Raw page programs without OOB bytes on the kernel's NAND simulator. */
#include <linux/module.h>
#include <linux/mtd/mtd.h>

#include "raw_page.inc"

static struct mtd_info *device;

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
