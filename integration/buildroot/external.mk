include $(sort $(wildcard $(BR2_EXTERNAL_FLASHRIG_PATH)/package/*/*.mk))
