include $(sort $(wildcard $(BR2_EXTERNAL_SQLWRAPPER_PATH)/package/*/*.mk))
