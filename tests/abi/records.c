/* A host compiled years ago embeds these records: neither a size nor an offset may ever change.
 * LP64, as on every machine that the library runs on. */

#include <stddef.h>

#include <ztlib/ztlib.h>

#define SIZE(record, bytes) _Static_assert(sizeof(record) == (bytes), #record " has changed its size")
#define FIELD(record, field, offset) \
    _Static_assert(offsetof(record, field) == (offset), #record "." #field " has moved")

/* The locks come first in several records; the C library fixes their sizes. */
SIZE(pthread_mutex_t, 40);
SIZE(pthread_cond_t, 48);
SIZE(pthread_rwlock_t, 56);

SIZE(sem_t, 32);

SIZE(linked_list, 16);
FIELD(linked_list, first, 0);
FIELD(linked_list, last, 8);

SIZE(linked_priority_list, 16);
FIELD(linked_priority_list, first, 0);
FIELD(linked_priority_list, last, 8);

SIZE(circular_list, 16);
FIELD(circular_list, head, 0);
FIELD(circular_list, current, 8);

SIZE(circular_list_node, 24);
FIELD(circular_list_node, value, 0);
FIELD(circular_list_node, next, 8);
FIELD(circular_list_node, prev, 16);

SIZE(queue, 144);
FIELD(queue, mutex, 0);
FIELD(queue, items, 40);
FIELD(queue, cond, 72);
FIELD(queue, head, 120);
FIELD(queue, tail, 128);
FIELD(queue, flags, 136);

SIZE(queue_node, 16);
FIELD(queue_node, value, 0);
FIELD(queue_node, next, 8);

SIZE(hashtable, 144);
FIELD(hashtable, mutex, 0);
FIELD(hashtable, rwlock, 40);
FIELD(hashtable, size, 96);
FIELD(hashtable, buckets, 104);
FIELD(hashtable, last, 112);
FIELD(hashtable, count, 120);
FIELD(hashtable, key_type, 128);
FIELD(hashtable, lock_mode, 129);
FIELD(hashtable, hash, 136);

SIZE(hashtable_entry, 40);
FIELD(hashtable_entry, key, 0);
FIELD(hashtable_entry, value, 8);
FIELD(hashtable_entry, next, 16);
FIELD(hashtable_entry, newer, 24);
FIELD(hashtable_entry, older, 32);

SIZE(buffer, 16);
FIELD(buffer, data, 0);
FIELD(buffer, capacity, 8);
FIELD(buffer, length, 12);

SIZE(wbuffer, 24);
FIELD(wbuffer, data, 0);
FIELD(wbuffer, capacity, 8);
FIELD(wbuffer, length, 16);

SIZE(split_result, 16);
FIELD(split_result, count, 0);
FIELD(split_result, parts, 8);

SIZE(void_ptr2_p, 16);
FIELD(void_ptr2_p, ptr2, 8);

SIZE(void_ptr3_p, 24);
FIELD(void_ptr3_p, ptr3, 16);

SIZE(void_ptr4_p, 32);
FIELD(void_ptr4_p, ptr4, 24);

SIZE(uid, 22);
FIELD(uid, random, 0);
FIELD(uid, rand1, 8);
FIELD(uid, seq32, 12);
FIELD(uid, seq16, 16);
FIELD(uid, rand2, 18);

SIZE(net_buffer, 112);
FIELD(net_buffer, mutex, 0);
FIELD(net_buffer, condition, 40);
FIELD(net_buffer, data, 88);
FIELD(net_buffer, capacity, 96);
FIELD(net_buffer, length, 100);
FIELD(net_buffer, flags, 104);

SIZE(sptrlist, 104);
FIELD(sptrlist, mutex, 0);
FIELD(sptrlist, rwlock, 40);
FIELD(sptrlist, list, 96);

SIZE(htmldoc_option, 32);
FIELD(htmldoc_option, name, 0);
FIELD(htmldoc_option, value, 8);
FIELD(htmldoc_option, next, 16);
FIELD(htmldoc_option, prev_link, 24);

SIZE(htmldoc, 168);
FIELD(htmldoc, method, 0);
FIELD(htmldoc, url, 40);
FIELD(htmldoc, url_length, 48);
FIELD(htmldoc, protocol, 50);
FIELD(htmldoc, host, 88);
FIELD(htmldoc, options, 96);
FIELD(htmldoc, header_ok, 104);
FIELD(htmldoc, get_params, 112);
FIELD(htmldoc, post_params, 120);
FIELD(htmldoc, input, 128);
FIELD(htmldoc, body, 144);
FIELD(htmldoc, body_ok, 160);

SIZE(http_document, 152);
FIELD(http_document, method, 0);
FIELD(http_document, url, 40);
FIELD(http_document, url_length, 48);
FIELD(http_document, protocol, 50);
FIELD(http_document, host, 88);
FIELD(http_document, options, 96);
FIELD(http_document, header_ok, 104);
FIELD(http_document, get_params, 112);
FIELD(http_document, post_params, 120);
FIELD(http_document, body, 128);
FIELD(http_document, body_ok, 144);

SIZE(netthreadpool, 320096);
FIELD(netthreadpool, node_lock, 0);
FIELD(netthreadpool, free_nodes, 40);
FIELD(netthreadpool, busy_nodes, 80040);
FIELD(netthreadpool, start_nodes, 160040);
FIELD(netthreadpool, node_count, 160044);
FIELD(netthreadpool, thread_lock, 160048);
FIELD(netthreadpool, free_threads, 160088);
FIELD(netthreadpool, busy_threads, 240088);
FIELD(netthreadpool, start_threads, 320088);
FIELD(netthreadpool, thread_count, 320092);

/* The library alone makes these; what stands behind the last field is its own. */
FIELD(netthreadpool_node, index, 0);
FIELD(netthreadpool_node, invitations, 4);
FIELD(netthreadpool_node, mutex, 8);
FIELD(netthreadpool_node, flags, 48);
FIELD(netthreadpool_node, pool, 56);
FIELD(netthreadpool_node, user_pointer, 64);
FIELD(netthreadpool_node, read_routine, 72);
FIELD(netthreadpool_node, write_routine, 80);
FIELD(netthreadpool_node, release_routine, 88);

FIELD(netthreadpool_thread, index, 0);
FIELD(netthreadpool_thread, thread_handle, 8);
FIELD(netthreadpool_thread, flags, 16);
FIELD(netthreadpool_thread, pool, 24);
FIELD(netthreadpool_thread, mutex, 32);
FIELD(netthreadpool_thread, condition, 72);
FIELD(netthreadpool_thread, node, 120);

FIELD(simple_xml_proto, socket, 0);
FIELD(simple_xml_proto, node, 8);
FIELD(simple_xml_proto, user_context, 16);
FIELD(simple_xml_proto, input_buffer, 24);
FIELD(simple_xml_proto, output_buffer, 136);
FIELD(simple_xml_proto, callback, 248);

SIZE(xmldoc_attr, 32);
FIELD(xmldoc_attr, name, 0);
FIELD(xmldoc_attr, value, 8);
FIELD(xmldoc_attr, previous, 16);
FIELD(xmldoc_attr, next, 24);

SIZE(xmldoc_node, 72);
FIELD(xmldoc_node, name, 0);
FIELD(xmldoc_node, value, 8);
FIELD(xmldoc_node, parent, 16);
FIELD(xmldoc_node, first_child, 24);
FIELD(xmldoc_node, last_child, 32);
FIELD(xmldoc_node, first_attribute, 40);
FIELD(xmldoc_node, last_attribute, 48);
FIELD(xmldoc_node, previous_sibling, 56);
FIELD(xmldoc_node, next_sibling, 64);

SIZE(xmldoc, 16);
FIELD(xmldoc, declaration, 0);
FIELD(xmldoc, root, 8);

SIZE(rtp_session, 56);
FIELD(rtp_session, ssrc, 0);
FIELD(rtp_session, timestamp, 4);
FIELD(rtp_session, initial_sequence, 8);
FIELD(rtp_session, sequence, 12);
FIELD(rtp_session, last_received_timestamp, 16);
FIELD(rtp_session, last_arrival_time, 24);
FIELD(rtp_session, last_received_timestamp_in_seconds, 32);
FIELD(rtp_session, jitter, 40);
FIELD(rtp_session, creation_value, 48);

/* tests/network/protocols/rtp says where the bit-fields lie. */
SIZE(rtp_header, 16);
FIELD(rtp_header, sequence, 2);
FIELD(rtp_header, timestamp, 4);
FIELD(rtp_header, ssrc, 8);
FIELD(rtp_header, first_csrc, 12);

SIZE(rtcp_packet, 52);
FIELD(rtcp_packet, length, 2);
FIELD(rtcp_packet, sender_ssrc, 4);
FIELD(rtcp_packet, ntp_timestamp, 8);
FIELD(rtcp_packet, rtp_timestamp, 16);
FIELD(rtcp_packet, sender_packet_count, 20);
FIELD(rtcp_packet, sender_octet_count, 24);
FIELD(rtcp_packet, report_block.ssrc, 28);
FIELD(rtcp_packet, report_block.extended_highest_sequence_number, 36);
FIELD(rtcp_packet, report_block.interarrival_jitter, 40);
FIELD(rtcp_packet, report_block.last_report, 44);
FIELD(rtcp_packet, report_block.delay_since_last_report, 48);

SIZE(sched_task, 32);
FIELD(sched_task, flags, 0);
FIELD(sched_task, work, 8);
FIELD(sched_task, done, 16);
FIELD(sched_task, arg, 24);

SIZE(sched_singlethread, 200);
FIELD(sched_singlethread, thread, 0);
FIELD(sched_singlethread, mutex, 8);
FIELD(sched_singlethread, state, 48);
FIELD(sched_singlethread, tasks, 56);
SIZE(wxmldoc_attr, 32);
FIELD(wxmldoc_attr, name, 0);
FIELD(wxmldoc_attr, value, 8);
FIELD(wxmldoc_attr, previous, 16);
FIELD(wxmldoc_attr, next, 24);

SIZE(wxmldoc_node, 72);
FIELD(wxmldoc_node, name, 0);
FIELD(wxmldoc_node, value, 8);
FIELD(wxmldoc_node, parent, 16);
FIELD(wxmldoc_node, first_attribute, 24);
FIELD(wxmldoc_node, last_attribute, 32);
FIELD(wxmldoc_node, first_child, 40);
FIELD(wxmldoc_node, last_child, 48);
FIELD(wxmldoc_node, previous_sibling, 56);
FIELD(wxmldoc_node, next_sibling, 64);

SIZE(wxmldoc, 16);
FIELD(wxmldoc, declaration, 0);
FIELD(wxmldoc, root, 8);

/* Behind the last documented field follow the client's own, so only that field's place is fixed. */
FIELD(socket_client, socket_descriptor, 0);
FIELD(socket_client, host, 8);
FIELD(socket_client, port, 16);
FIELD(socket_client, running_flag, 18);
FIELD(socket_client, receive_buffer, 24);
FIELD(socket_client, send_buffer, 136);
FIELD(socket_client, receive_thread, 248);
FIELD(socket_client, send_thread, 256);
FIELD(socket_client, connect_thread, 264);
FIELD(socket_client, mutex, 272);
FIELD(socket_client, condition, 312);
FIELD(socket_client, connected_flag, 360);
FIELD(socket_client, parked_count, 361);
FIELD(socket_client, last_error, 364);
FIELD(socket_client, user_data, 368);
FIELD(socket_client, on_disconnect, 376);
FIELD(socket_client, on_connect, 384);
FIELD(socket_client, on_receive, 392);
FIELD(socket_client, on_process, 400);

/* These three end with private fields too. */
FIELD(threadpool, count, 0);
FIELD(threadpool, mutex, 8);
FIELD(threadpool, incoming, 48);
FIELD(threadpool, threads, 192);

FIELD(threadpool_thread, incoming_thread, 0);
FIELD(threadpool_thread, read_thread, 8);
FIELD(threadpool_thread, process_thread, 16);
FIELD(threadpool_thread, id, 24);
FIELD(threadpool_thread, running, 28);
FIELD(threadpool_thread, mutex, 32);
FIELD(threadpool_thread, processing, 72);
FIELD(threadpool_thread, wake, 216);
FIELD(threadpool_thread, nodes, 248);
FIELD(threadpool_thread, pool, 256);

FIELD(threadpool_node, fd, 0);
FIELD(threadpool_node, must_exit, 4);
FIELD(threadpool_node, read_cb, 8);
FIELD(threadpool_node, data_cb, 16);
FIELD(threadpool_node, process_cb, 24);
FIELD(threadpool_node, add_cb, 32);
FIELD(threadpool_node, remove_cb, 40);
FIELD(threadpool_node, worker, 48);
FIELD(threadpool_node, mutex, 56);
FIELD(threadpool_node, user, 96);

SIZE(openssl_rsa, 96);
FIELD(openssl_rsa, private_key, 0);
FIELD(openssl_rsa, private_key_path, 8);
FIELD(openssl_rsa, public_key, 16);
FIELD(openssl_rsa, certificate_path, 24);
FIELD(openssl_rsa, serial, 32);
FIELD(openssl_rsa, server_id, 36);
FIELD(openssl_rsa, server_features, 40);
FIELD(openssl_rsa, mutex, 48);
FIELD(openssl_rsa, public_size, 88);
FIELD(openssl_rsa, private_size, 90);
SIZE(openssl_ca, 120);
FIELD(openssl_ca, directory, 0);
FIELD(openssl_ca, private_path, 8);
FIELD(openssl_ca, public_path, 16);
FIELD(openssl_ca, serial_path, 24);
FIELD(openssl_ca, serial, 32);
FIELD(openssl_ca, ca_certificate, 40);
FIELD(openssl_ca, store, 48);
FIELD(openssl_ca, store_context, 56);
FIELD(openssl_ca, private_key, 64);
FIELD(openssl_ca, public_key, 72);
FIELD(openssl_ca, mutex, 80);
SIZE(filedb_fixed, 524);
FIELD(filedb_fixed, path, 0);
FIELD(filedb_fixed, record_size, 512);
FIELD(filedb_fixed, key_type, 516);
FIELD(filedb_fixed, key_size, 520);

/* Packed: these bytes are what saved files hold. */
SIZE(ipv4_address, 17);
FIELD(ipv4_address, address, 0);
FIELD(ipv4_address, mask, 4);
FIELD(ipv4_address, prefix, 8);
FIELD(ipv4_address, reserved, 9);

SIZE(network_route, 34);
FIELD(network_route, destination, 0);
FIELD(network_route, gateway, 17);

SIZE(network_interface, 374);
FIELD(network_interface, name, 0);
FIELD(network_interface, link, 32);
FIELD(network_interface, mac, 64);
FIELD(network_interface, reserved, 192);
FIELD(network_interface, vlan_id, 196);
FIELD(network_interface, addresses, 200);
FIELD(network_interface, address_count, 370);

SIZE(network_resolv, 302);
FIELD(network_resolv, search, 0);
FIELD(network_resolv, nameservers, 128);
FIELD(network_resolv, nameserver_count, 298);
SIZE(named_pipe, 568);
FIELD(named_pipe, path, 0);
FIELD(named_pipe, reserved, 512);
FIELD(named_pipe, read_fd, 516);
FIELD(named_pipe, write_fd, 520);
FIELD(named_pipe, mutex, 528);

SIZE(ipc_async_reader, 32);
FIELD(ipc_async_reader, running, 0);
FIELD(ipc_async_reader, thread, 8);
FIELD(ipc_async_reader, context, 16);
FIELD(ipc_async_reader, read_function, 24);

SIZE(async_request, 48);
FIELD(async_request, id, 0);
FIELD(async_request, deadline, 8);
FIELD(async_request, status, 12);
FIELD(async_request, callback, 16);
FIELD(async_request, context, 24);
FIELD(async_request, data, 32);
FIELD(async_request, data_length, 40);

SIZE(async_requests_manager, 352);
FIELD(async_requests_manager, next_id, 0);
FIELD(async_requests_manager, thread, 8);
FIELD(async_requests_manager, mutex, 16);
FIELD(async_requests_manager, flags, 56);
FIELD(async_requests_manager, pending, 64);
FIELD(async_requests_manager, completed, 208);

extern int abi_records_checked;
int abi_records_checked;
