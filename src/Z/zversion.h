/* zversion.h: the one list of public names and their link names. Every class and plain function
 * carries the version of the interface in its link name, so that two versions of the library can
 * live in one process and a mix-up fails at link time. Sources and callers write the plain name.
 *
 * Without suffix: ZGetLocale and the C handle classes ZPROP_handle, ZPROP_stz_handle,
 * ZPROP_iter_handle, ZPROP_stz_iter_handle and ZPROP_stzvalue_iter_handle. */
#ifndef Z_ZVERSION_H
#define Z_ZVERSION_H

#define ZBASE_VERSION "6.0"

/* Frame */
#define ZObject ZObject_6_0
#define ZException ZException_6_0
#define ZZException ZZException_6_0
#define ZOutOfMemoryException ZOutOfMemoryException_6_0
#define ZInvalidPlatformException ZInvalidPlatformException_6_0
#define ZNotClonableException ZNotClonableException_6_0
#define ZInvalidParameterException ZInvalidParameterException_6_0
#define ZNoQELEnvironmentException ZNoQELEnvironmentException_6_0
#define ZQELMBLenException ZQELMBLenException_6_0
#define ZUnsupportedException ZUnsupportedException_6_0
#define ZThreadException ZThreadException_6_0
#define ZConditionException ZConditionException_6_0
#define ZResourceException ZResourceException_6_0
#define ZCreateResourceException ZCreateResourceException_6_0
#define ZLockResourceException ZLockResourceException_6_0
#define ZUnlockResourceException ZUnlockResourceException_6_0
#define ZReadResourceException ZReadResourceException_6_0
#define ZWriteResourceException ZWriteResourceException_6_0
#define ZMessageService ZMessageService_6_0
#define ZDefaultMessageService ZDefaultMessageService_6_0
#define ZMessageArguments ZMessageArguments_6_0

/* Exceptions with text */
#define ZOpenResourceException ZOpenResourceException_6_0
#define ZCloseResourceException ZCloseResourceException_6_0
#define ZInvalidResourceStateException ZInvalidResourceStateException_6_0
#define ZAbstractNotImplementedException ZAbstractNotImplementedException_6_0
#define ZConverterException ZConverterException_6_0
#define ZToUTF8Exception ZToUTF8Exception_6_0
#define ZFromUTF8Exception ZFromUTF8Exception_6_0
#define ZUnexpectedEndOfFile ZUnexpectedEndOfFile_6_0
#define ZJavaPropertyParseException ZJavaPropertyParseException_6_0
#define ZPropertiesException ZPropertiesException_6_0
#define ZPropertiesMissingPropertyException ZPropertiesMissingPropertyException_6_0
#define ZPropertiesInvalidValueException ZPropertiesInvalidValueException_6_0
#define ZPropertiesInvalidNumValueException ZPropertiesInvalidNumValueException_6_0
#define ZPropertiesInvalidBoolValueException ZPropertiesInvalidBoolValueException_6_0
#define ZPropertiesIteratorException ZPropertiesIteratorException_6_0
#define ZPropertiesIOException ZPropertiesIOException_6_0
#define ZPropertiesInvalidDataException ZPropertiesInvalidDataException_6_0
#define ZSharedLibraryException ZSharedLibraryException_6_0
#define ZSharedLibraryLoadException ZSharedLibraryLoadException_6_0
#define ZSharedLibraryResolveException ZSharedLibraryResolveException_6_0
#define ZCodesetException ZCodesetException_6_0

/* Text functions */
#define zgetlocale zgetlocale_6_0
#define zgetLocalCodesetName zgetLocalCodesetName_6_0
#define zgetUTF8Handle zgetUTF8Handle_6_0
#define zgetLCSHandle zgetLCSHandle_6_0
#define zset_cs_dir zset_cs_dir_6_0
#define zlcs_to_utf8 zlcs_to_utf8_6_0
#define zlcs_from_utf8 zlcs_from_utf8_6_0
#define zstrchr zstrchr_6_0
#define zstrrchr zstrrchr_6_0
#define zstrstr zstrstr_6_0
#define zstrpbrk zstrpbrk_6_0
#define zstrspn zstrspn_6_0
#define zstrcspn zstrcspn_6_0
#define zstrncpy zstrncpy_6_0
#define zstrncat zstrncat_6_0
#define zstrtok zstrtok_6_0
#define zstricmp zstricmp_6_0
#define zstrnicmp zstrnicmp_6_0
#define zstrlower zstrlower_6_0
#define zstrupper zstrupper_6_0
#define zstrptime zstrptime_6_0
#define ziswalnum ziswalnum_6_0
#define ziswalpha ziswalpha_6_0
#define ziswdigit ziswdigit_6_0
#define ziswlower ziswlower_6_0
#define ziswspace ziswspace_6_0
#define ziswupper ziswupper_6_0
#define zmblen zmblen_6_0
#define zstrcount zstrcount_6_0
#define zisalpha zisalpha_6_0
#define zisspace zisspace_6_0
#define zmbtowc zmbtowc_6_0

/* Strings */
#define ZAbstractString ZAbstractString_6_0
#define ZAbstractConstString ZAbstractConstString_6_0
#define ZAbstractMutableString ZAbstractMutableString_6_0
#define ZLCString ZLCString_6_0
#define ZLCConstString ZLCConstString_6_0
#define ZUTF8String ZUTF8String_6_0
#define ZUTF8ConstString ZUTF8ConstString_6_0

/* Containers and buffers */
#define ZIterator ZIterator_6_0
#define ZAbstractIterator ZAbstractIterator_6_0
#define ZArrayInterface ZArrayInterface_6_0
#define ZAbstractArray ZAbstractArray_6_0
#define ZArray ZArray_6_0
#define ZSortCompare ZSortCompare_6_0
#define ZDefaultSortCompare ZDefaultSortCompare_6_0
#define ZList ZList_6_0
#define ZAbstractList ZAbstractList_6_0
#define ZArrayList ZArrayList_6_0
#define ZListIterator ZListIterator_6_0
#define ZStack ZStack_6_0
#define ZAbstractStack ZAbstractStack_6_0
#define ZArrayStack ZArrayStack_6_0
#define ZMap ZMap_6_0
#define ZAbstractMap ZAbstractMap_6_0
#define ZArrayMap ZArrayMap_6_0
#define ZHashMap ZHashMap_6_0
#define ZMapIterator ZMapIterator_6_0
#define ZArrayMapIterator ZArrayMapIterator_6_0
#define ZKeyMap ZKeyMap_6_0
#define ZAbstractKeyMap ZAbstractKeyMap_6_0
#define ZHashKeyMap ZHashKeyMap_6_0
#define ZKeyEntry ZKeyEntry_6_0
#define ZBufferInterface ZBufferInterface_6_0
#define ZAbstractBuffer ZAbstractBuffer_6_0
#define ZConstBuffer ZConstBuffer_6_0
#define ZBuffer ZBuffer_6_0

/* Locks and observers */
#define ZLockInterface ZLockInterface_6_0
#define ZAbstractLock ZAbstractLock_6_0
#define ZLock ZLock_6_0
#define ZResourceLock ZResourceLock_6_0
#define ZConditionInterface ZConditionInterface_6_0
#define ZAbstractCondition ZAbstractCondition_6_0
#define ZCondition ZCondition_6_0
#define ZBooleanCondition ZBooleanCondition_6_0
#define ZObservableInterface ZObservableInterface_6_0
#define ZObserverInterface ZObserverInterface_6_0
#define ZObservedParm ZObservedParm_6_0
#define ZAbstractObservable ZAbstractObservable_6_0
#define Voyeur Voyeur_6_0

/* Configuration */
#define ZPCache ZPCache_6_0
#define ZPCategoryBasedCache ZPCategoryBasedCache_6_0
#define ZSCFData ZSCFData_6_0
#define ZPropertiesInterface ZPropertiesInterface_6_0
#define ZPropertiesMutableInterface ZPropertiesMutableInterface_6_0
#define ZAbstractProperties ZAbstractProperties_6_0
#define ZProperties ZProperties_6_0
#define ZPropertyChanged ZPropertyChanged_6_0
#define ZPropertiesFactoryInterface ZPropertiesFactoryInterface_6_0
#define ZAbstractPropertiesFactory ZAbstractPropertiesFactory_6_0
#define ZPropRegistry ZPropRegistry_6_0
#define ZPropertiesIteratorInterface ZPropertiesIteratorInterface_6_0
#define ZAbstractPropertiesIterator ZAbstractPropertiesIterator_6_0
#define ZPropertiesIterator ZPropertiesIterator_6_0
#define ZPropertyValuesIteratorInterface ZPropertyValuesIteratorInterface_6_0
#define ZAbstractPropertyValuesIterator ZAbstractPropertyValuesIterator_6_0
#define ZStanzaIterator ZStanzaIterator_6_0
#define ZStanzaValueIterator ZStanzaValueIterator_6_0
#define ZStanzaFileProperties ZStanzaFileProperties_6_0
#define ZKVEntry ZKVEntry_6_0
#define ZPropertiesKVList ZPropertiesKVList_6_0
#define ZStzFileItem ZStzFileItem_6_0

/* C interface */
#define zstzPropOpen zstzPropOpen_6_0
#define zstzPropClose zstzPropClose_6_0
#define zstzPropStore zstzPropStore_6_0
#define zstzPropExists zstzPropExists_6_0
#define zstzPropNumStanzas zstzPropNumStanzas_6_0
#define zstzPropNumKeys zstzPropNumKeys_6_0
#define zstzPropNumValues zstzPropNumValues_6_0
#define zstzPropGetStringValue zstzPropGetStringValue_6_0
#define zstzPropGetIntegerValue zstzPropGetIntegerValue_6_0
#define zstzPropGetBooleanValue zstzPropGetBooleanValue_6_0
#define zstzPropGetValues zstzPropGetValues_6_0
#define zstzPropFreeValuesList zstzPropFreeValuesList_6_0
#define zstzPropFree zstzPropFree_6_0
#define zstzPropSetStringValue zstzPropSetStringValue_6_0
#define zstzPropSetIntegerValue zstzPropSetIntegerValue_6_0
#define zstzPropSetBooleanValue zstzPropSetBooleanValue_6_0
#define zstzPropRemoveKey zstzPropRemoveKey_6_0
#define zstzPropRemoveStanza zstzPropRemoveStanza_6_0
#define zstzPropAddStanzaComment zstzPropAddStanzaComment_6_0
#define zstzPropAddFileComment zstzPropAddFileComment_6_0
#define zstzPropAddLineComment zstzPropAddLineComment_6_0
#define zstzPropIter_init zstzPropIter_init_6_0
#define zstzPropIter_next zstzPropIter_next_6_0
#define zstzPropIter_getKey zstzPropIter_getKey_6_0
#define zstzPropIter_getValue zstzPropIter_getValue_6_0
#define zstzPropIter_numKeys zstzPropIter_numKeys_6_0
#define zstzPropIter_numValues zstzPropIter_numValues_6_0
#define zstzPropIter_chgValue zstzPropIter_chgValue_6_0
#define zstzPropIter_addValue zstzPropIter_addValue_6_0
#define zstzPropIter_rmvValue zstzPropIter_rmvValue_6_0
#define zstzPropIter_close zstzPropIter_close_6_0
#define zstzPropGetStanzas zstzPropGetStanzas_6_0
#define zstzPropFreeStanzas zstzPropFreeStanzas_6_0
#define zstzPropLastError zstzPropLastError_6_0

/* Platform services */
#define ZAbstractFileMap ZAbstractFileMap_6_0
#define ZUnixFileMap ZUnixFileMap_6_0
#define ZSqueeze ZSqueeze_6_0
#define ZAdler32 ZAdler32_6_0

#endif
