// Annotations of the platform headers. They say something to the reader and to the kit's analyser, nothing to this compiler.
#pragma once

#define _In_
#define _In_opt_
#define _Out_
#define _Out_opt_
#define _Inout_
#define _Inout_opt_
#define _Outptr_
#define _Outptr_result_maybenull_
#define _In_reads_(n)
#define _In_reads_opt_(n)
#define _In_reads_bytes_(n)
#define _In_reads_bytes_opt_(n)
#define _Out_writes_(n)
#define _Out_writes_opt_(n)
#define _Out_writes_bytes_(n)
#define _Out_writes_bytes_opt_(n)
#define _Out_writes_bytes_to_(n, m)
#define _Out_writes_bytes_to_opt_(n, m)
#define _Out_writes_to_(n, m)
#define _Inout_updates_(n)
#define _Inout_updates_bytes_(n)
#define _In_z_
#define _Printf_format_string_
#define _Ret_maybenull_
#define _Ret_notnull_
#define _Must_inspect_result_
#define _Check_return_
#define _Success_(expr)
#define _When_(expr, annotation)
#define _At_(target, annotation)
#define _Use_decl_annotations_
#define _Pre_notnull_
#define _Post_invalid_
#define _Field_size_(n)
#define _Field_size_bytes_(n)
#define _Analysis_assume_(expr) ((void)0)
#define __drv_allocatesMem(kind)
#define __drv_freesMem(kind)
#define __drv_aliasesMem
#define __drv_strictTypeMatch(mode)
#define _IRQL_requires_max_(irql)
#define _IRQL_requires_min_(irql)
#define _IRQL_requires_(irql)
#define _IRQL_requires_same_
#define _IRQL_raises_(irql)
#define _IRQL_saves_
#define _IRQL_restores_
#define _IRQL_saves_global_(kind, param)
#define _IRQL_restores_global_(kind, param)
#define _Acquires_lock_(lock)
#define _Releases_lock_(lock)
#define _Requires_lock_held_(lock)
#define _Requires_lock_not_held_(lock)
#define _Guarded_by_(lock)
#define _Interlocked_operand_
#define _Function_class_(name)
#define _Dispatch_type_(type)
#define _Kernel_float_used_
