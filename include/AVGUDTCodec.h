#ifndef AVGUDTCODEC_H
#define AVGUDTCODEC_H

/**
 * @file
 * The decoded packet object that travels from the transport's codec through the receiver to the owner.
 *
 * The codec builds one object per datagram. It is shared by reference count (`AddRef`, `Release`), so the
 * network thread, the receiver's worker and the owner may each hold it; whoever lets go last destroys it.
 * The receiver reads `wLen` and hands `bufBody.pbuf` to the owner's head parser, nothing else.
 */

#include "xprefc.h"
#include "xptypes.h"

/** A length and a byte pointer. Borrowed bytes: nobody frees `pbuf` through this record. */
struct tag_bi_buf
{
    uint32 ulen; ///< bytes at `pbuf`
    uint8* pbuf; ///< first byte, null when empty

    tag_bi_buf() : ulen(0), pbuf(nullptr) {}
};
typedef tag_bi_buf bi_buf; ///< by its usual name

/** A reference-counted object that carries one more counted object of its user's choice. */
struct tag_pt_obj : public tag_st_obj
{
    CScopePtr<tag_st_obj> pCustomObj; ///< any counted object that shall live as long as this one
    uint64 uCustomId;                 ///< free for the user
    uint8 cCustomFlag;                ///< free for the user

    tag_pt_obj() : uCustomId(0), cCustomFlag(0) {}
};
typedef tag_pt_obj pt_obj; ///< by its usual name

/** The fields of the transport header and where body and extension lie. */
class UDTCodecBaseEncode_V2 : public pt_obj
{
public:
    uint8 cSTX;         ///< start mark
    uint16 wLen;        ///< bytes of the packet; feeds byte counters and rate meters
    uint32 dwSeq;       ///< downlink transport sequence
    uint16 wSubCmd;     ///< command of the transport
    uint64 u64Uin;      ///< user account
    uint32 dwRoomID;    ///< room
    uint32 dwLocation;  ///< location mark of the transport
    uint16 wTimeStamp;  ///< 16-bit transport timestamp, ms
    uint64 u64Reverse;  ///< reserved
    uint8 cSeqType;     ///< kind of sequence numbering
    uint32 dwSenderSeq; ///< the sender's own sequence
    uint16 wTLVLen;     ///< bytes of the extension
    bi_buf bufTLV;      ///< extension, borrowed
    bi_buf bufBody;     ///< body, borrowed; begins with the media head
    uint8 cETX;         ///< end mark

    UDTCodecBaseEncode_V2()
        : cSTX(0), wLen(0), dwSeq(0), wSubCmd(0), u64Uin(0), dwRoomID(0), dwLocation(0), wTimeStamp(0),
          u64Reverse(0), cSeqType(0), dwSenderSeq(0), wTLVLen(0), cETX(0)
    {
    }
};

/**
 * One decoded datagram. Make it with `new` (or derive from it to own the body's bytes), hand it to
 * `IUDTRecv::UDTReceiveNetData` while holding a reference of your own, then let go.
 */
class UDTCodecBaseDecode_V2 : public UDTCodecBaseEncode_V2
{
public:
    uint32 dwSenderDeq; ///< as decoded by the codec; not read by the receiver

    UDTCodecBaseDecode_V2() : dwSenderDeq(0) {}
};

#endif // AVGUDTCODEC_H
