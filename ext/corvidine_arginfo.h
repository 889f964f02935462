/* This is a generated file, edit the .stub.php file instead.
 * Stub hash: b3e7e36296b3e7796ed7f52f1c2f5565481b876f */

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_MASK_EX(arginfo_corvidine_get_context, 0, 0, MAY_BE_STRING|MAY_BE_FALSE)
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_set_context, 0, 1, _IS_BOOL, 0)
	ZEND_ARG_TYPE_INFO(0, context, IS_STRING, 0)
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_set_transaction_name, 0, 1, _IS_BOOL, 0)
	ZEND_ARG_TYPE_INFO(0, name, IS_STRING, 0)
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_MASK_EX(arginfo_corvidine_start_trace, 0, 1, MAY_BE_ARRAY|MAY_BE_FALSE|MAY_BE_NULL)
	ZEND_ARG_TYPE_INFO(0, layer, IS_STRING, 0)
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, xtrace, IS_STRING, 1, "null")
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, info, IS_MIXED, 0, "null")
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, backtrace, IS_MIXED, 0, "null")
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_end_trace, 0, 0, _IS_BOOL, 1)
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, info, IS_MIXED, 0, "null")
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, backtrace, IS_MIXED, 0, "null")
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, edge, IS_MIXED, 0, "null")
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, transaction_name, IS_STRING, 1, "null")
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_is_tracing, 0, 0, _IS_BOOL, 0)
ZEND_END_ARG_INFO()

#define arginfo_corvidine_trace_started arginfo_corvidine_is_tracing

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_is_ready, 0, 0, _IS_BOOL, 0)
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, timeout, IS_LONG, 0, "0")
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_log, 0, 2, _IS_BOOL, 1)
	ZEND_ARG_TYPE_INFO(0, layer, IS_STRING, 0)
	ZEND_ARG_TYPE_INFO(0, label, IS_MIXED, 0)
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, info, IS_MIXED, 0, "null")
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, backtrace, IS_MIXED, 0, "null")
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, edge, IS_MIXED, 0, "null")
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_log_entry, 0, 1, _IS_BOOL, 1)
	ZEND_ARG_TYPE_INFO(0, layer, IS_STRING, 0)
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, info, IS_MIXED, 0, "null")
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, backtrace, IS_MIXED, 0, "null")
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_log_exit, 0, 1, _IS_BOOL, 1)
	ZEND_ARG_TYPE_INFO(0, layer, IS_STRING, 0)
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, info, IS_MIXED, 0, "null")
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, backtrace, IS_MIXED, 0, "null")
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, edge, IS_MIXED, 0, "null")
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_log_error, 0, 3, _IS_BOOL, 1)
	ZEND_ARG_TYPE_INFO(0, layer, IS_STRING, 0)
	ZEND_ARG_TYPE_INFO(0, message, IS_STRING, 0)
	ZEND_ARG_TYPE_INFO(0, code, IS_LONG, 0)
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, info, IS_MIXED, 0, "null")
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, backtrace, IS_MIXED, 0, "null")
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, edge, IS_MIXED, 0, "null")
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_log_exception, 0, 2, _IS_BOOL, 1)
	ZEND_ARG_TYPE_INFO(0, layer, IS_STRING, 0)
	ZEND_ARG_OBJ_INFO(0, exception, Throwable, 0)
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, info, IS_MIXED, 0, "null")
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, backtrace, IS_MIXED, 0, "null")
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, edge, IS_MIXED, 0, "null")
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_metric_summary, 0, 2, _IS_BOOL, 0)
	ZEND_ARG_TYPE_INFO(0, name, IS_STRING, 0)
	ZEND_ARG_TYPE_INFO(0, value, IS_DOUBLE, 0)
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, count, IS_LONG, 0, "1")
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, host_tag, _IS_BOOL, 0, "false")
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, service_name, IS_STRING, 1, "null")
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, tags, IS_ARRAY, 1, "null")
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_metric_increment, 0, 1, _IS_BOOL, 0)
	ZEND_ARG_TYPE_INFO(0, name, IS_STRING, 0)
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, count, IS_LONG, 0, "1")
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, host_tag, _IS_BOOL, 0, "false")
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, service_name, IS_STRING, 1, "null")
	ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, tags, IS_ARRAY, 1, "null")
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_get_log_trace_id, 0, 0, IS_STRING, 0)
ZEND_END_ARG_INFO()


ZEND_FUNCTION(corvidine_get_context);
ZEND_FUNCTION(corvidine_set_context);
ZEND_FUNCTION(corvidine_set_transaction_name);
ZEND_FUNCTION(corvidine_start_trace);
ZEND_FUNCTION(corvidine_end_trace);
ZEND_FUNCTION(corvidine_is_tracing);
ZEND_FUNCTION(corvidine_trace_started);
ZEND_FUNCTION(corvidine_is_ready);
ZEND_FUNCTION(corvidine_log);
ZEND_FUNCTION(corvidine_log_entry);
ZEND_FUNCTION(corvidine_log_exit);
ZEND_FUNCTION(corvidine_log_error);
ZEND_FUNCTION(corvidine_log_exception);
ZEND_FUNCTION(corvidine_metric_summary);
ZEND_FUNCTION(corvidine_metric_increment);
ZEND_FUNCTION(corvidine_get_log_trace_id);


static const zend_function_entry ext_functions[] = {
	ZEND_FE(corvidine_get_context, arginfo_corvidine_get_context)
	ZEND_FE(corvidine_set_context, arginfo_corvidine_set_context)
	ZEND_FE(corvidine_set_transaction_name, arginfo_corvidine_set_transaction_name)
	ZEND_FE(corvidine_start_trace, arginfo_corvidine_start_trace)
	ZEND_FE(corvidine_end_trace, arginfo_corvidine_end_trace)
	ZEND_FE(corvidine_is_tracing, arginfo_corvidine_is_tracing)
	ZEND_FE(corvidine_trace_started, arginfo_corvidine_trace_started)
	ZEND_FE(corvidine_is_ready, arginfo_corvidine_is_ready)
	ZEND_FE(corvidine_log, arginfo_corvidine_log)
	ZEND_FE(corvidine_log_entry, arginfo_corvidine_log_entry)
	ZEND_FE(corvidine_log_exit, arginfo_corvidine_log_exit)
	ZEND_FE(corvidine_log_error, arginfo_corvidine_log_error)
	ZEND_FE(corvidine_log_exception, arginfo_corvidine_log_exception)
	ZEND_FE(corvidine_metric_summary, arginfo_corvidine_metric_summary)
	ZEND_FE(corvidine_metric_increment, arginfo_corvidine_metric_increment)
	ZEND_FE(corvidine_get_log_trace_id, arginfo_corvidine_get_log_trace_id)
	ZEND_FE_END
};
